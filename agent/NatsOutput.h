#pragma once
// --output=nats://...: publishes every message, as the JSON object that
// --format=json prints, to NATS JetStream on the subject
// PREFIX.<host>.<system>.<event>.
//
// The subscriber thread only queues the shared messages; a thread of this
// output formats them, publishes with a bounded window of unacknowledged
// messages and counts a message as delivered once JetStream acknowledged
// storing it. Each message asks for its acknowledgement on a subject of its
// own under one inbox of this output, which the same thread reads in
// batches: no per-message callback thread, pending-ack table or wake-up.
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
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
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
    void Take(const std::shared_ptr<const Engine::FtraceMessage>& message) override;
    bool Flush() override;
    void Finish() override;
    void PrintSummary(std::ostream& os) const override;

private:
    struct Entry {
        uint64_t sequence;                                   // the Nats-Msg-Id is m_id_prefix + sequence
        std::shared_ptr<const Engine::FtraceMessage> message;  // until formatted
        const std::string* subject = nullptr;                // in m_subjects, once formatted
        std::string data;                                    // the JSON object, once formatted
    };
    // Sent and waiting for its acknowledgement, on the publisher thread.
    struct InFlight {
        Entry entry;
        std::chrono::steady_clock::time_point sent;
        bool answered = false;
        bool resend = false;
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
    void Format(Entry& entry);
    // Sends what it can of `sending`; false when the client refused one.
    bool Send(std::vector<Entry>& sending);
    // Reads the acknowledgements that arrived, and takes back for resending
    // what JetStream refused for now or did not answer in time.
    void TakeAcknowledgements();
    static size_t Footprint(const Entry& entry);
    void Requeue(Entry entry);
    void TrimBuffer();  // with m_mutex held
    static void OnDisconnected(natsConnection* connection, void* closure);
    static void OnConnected(natsConnection* connection, void* closure);

    const NatsSettings& m_settings;
    MessageFormatter m_formatter;
    std::string m_host;       // subject token
    std::string m_id_prefix;  // unique per run
    uint64_t m_sequence = 0;
    std::vector<Entry> m_batch;  // subscriber thread only
    // Publisher thread only: the subject of each event name so far, and the formatting buffer.
    std::unordered_map<std::string, std::string> m_subjects;
    std::string m_scratch;

    natsConnection* m_connection = nullptr;
    natsSubscription* m_acks = nullptr;
    std::string m_inbox;  // "_INBOX.<unique>.": message N asks for its acknowledgement on m_inbox + N
    std::thread m_publisher;
    // Publisher thread only: the answer to message m_first_reply + i is m_in_flight[i].
    std::deque<InFlight> m_in_flight;
    uint64_t m_first_reply = 0;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    // The buffer: formatted messages, then the newer ones still to format.
    std::deque<Entry> m_queue;
    std::deque<Entry> m_incoming;
    uint64_t m_queue_bytes = 0;
    std::atomic<uint64_t> m_acknowledged{0};
    bool m_connected = false;
    bool m_stopping = false;
    std::chrono::steady_clock::time_point m_stop_deadline{};
    Counts m_counts;
};

}  // namespace Agent
