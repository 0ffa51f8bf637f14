#pragma once
// --output=nats://...: publishes every message, as the JSON object that
// --format=json prints, to NATS JetStream on the subject
// PREFIX.<host>.<system>.<event>.
//
// The subscriber thread only formats and queues; a thread of this output
// publishes asynchronously with a bounded window of unacknowledged messages
// and counts a message as delivered once JetStream acknowledged storing it.
// While the servers are away (the client reconnects by itself) or slow,
// messages wait in a bounded buffer whose oldest are dropped, and counted,
// when it overflows. Failed or unanswered publishes are sent again under the
// same message id, which JetStream de-duplicates.

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MessageFormatter.h"
#include "NatsSettings.h"
#include "Output.h"

namespace Agent {

class NatsOutput : public Output {
public:
    NatsOutput(const NatsSettings& settings, const EventFieldTypes& types);
    ~NatsOutput() override;

    bool Check(std::string* error) override;
    void Start() override;
    void Write(const Engine::FtraceMessage& message) override;
    bool Flush() override;
    void Finish() override;
    void PrintSummary(std::ostream& os) const override;

private:
    struct Entry {
        std::string subject;
        std::string id;  // Nats-Msg-Id
        std::string data;
    };
    struct Counts {
        uint64_t published = 0;  // handed to this output
        uint64_t retried = 0;
        uint64_t buffer_full = 0;
        uint64_t refused = 0;
        uint64_t unsent_at_stop = 0;
    };

    natsStatus Connect(natsConnection** connection, bool retry, std::string* error);
    bool PrepareStream(natsConnection* connection, std::string* error);
    void Publish();
    void Requeue(Entry entry);
    void TrimBuffer();  // with m_mutex held
    static void OnAck(jsCtx* js, natsMsg* msg, jsPubAck* ack, jsPubAckErr* error, void* closure);
    static void OnDisconnected(natsConnection* connection, void* closure);
    static void OnConnected(natsConnection* connection, void* closure);

    const NatsSettings& m_settings;
    MessageFormatter m_formatter;
    std::string m_host;       // subject token
    std::string m_id_prefix;  // unique per run
    uint64_t m_sequence = 0;
    std::vector<Entry> m_batch;  // subscriber thread only

    natsConnection* m_connection = nullptr;
    jsCtx* m_js = nullptr;
    std::thread m_publisher;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Entry> m_queue;
    uint64_t m_queue_bytes = 0;
    // Counted by the acknowledgement callback without the lock: it runs once per message.
    std::atomic<uint64_t> m_in_flight{0};
    std::atomic<uint64_t> m_acknowledged{0};
    bool m_connected = false;
    bool m_stopping = false;
    std::chrono::steady_clock::time_point m_stop_deadline{};
    Counts m_counts;
};

}  // namespace Agent
