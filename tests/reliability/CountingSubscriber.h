#pragma once
// A subscriber task for the fault tests: records which (event, pid) trace
// messages reached it. It can be told to stop while it is still subscribed,
// or be made never to read its queue at all.

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "AbstructMessage.h"
#include "Framework/Task.h"
#include "FtraceMessage.h"

class CountingSubscriber : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    enum class Mode { Reads, NeverReads };

    CountingSubscriber(const std::string& name, Mode mode, unsigned int queue_slots);

    int Run() override;
    int Receive(Engine::FtraceMessage* message) override;

    // Run returns soon; the task stays registered (and subscribed).
    void Quit() { m_quit = true; }
    bool HasQuit() const { return m_has_quit; }

    // A message of "system:event" whose field "pid" is `pid` arrived.
    bool Received(const std::string& event, pid_t pid) const;
    unsigned long Count() const { return m_count; }

private:
    const Mode m_mode;
    std::atomic<bool> m_quit{false};
    std::atomic<bool> m_has_quit{false};
    std::atomic<unsigned long> m_count{0};
    mutable std::mutex m_mutex;
    std::set<std::pair<std::string, pid_t>> m_received;
};
