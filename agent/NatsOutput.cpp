#include "NatsOutput.h"

#include <Poco/Logger.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

#include "FtraceMessage.h"
#include "SDK/LoggerUtils.h"

namespace Agent {
namespace {

constexpr size_t kWindow = 4096;  // messages published and not yet acknowledged
constexpr size_t kBatch = 256;    // messages handed to the publisher at once
constexpr auto kAckWait = std::chrono::seconds(5);  // then a publish counts as failed and is sent again
// Acknowledgements are read this often while some are awaited: waiting for
// each one would cost a wake-up per message.
constexpr auto kAckPoll = std::chrono::milliseconds(1);
constexpr auto kStartTry = std::chrono::seconds(3);
constexpr auto kDrainAtStop = std::chrono::seconds(5);
const char* const kMsgIdHeader = "Nats-Msg-Id";

void Log(int priority, const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace-agent", false), priority, text,
                          __FILE__, line);
}

// Subjects are dot-separated tokens: a host name's dots (and anything else
// NATS or a shell would read specially) become underscores.
std::string HostToken() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "unknown";
    std::string token = name;
    for (char& c : token) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
    }
    return token;
}

bool ReadFirstLine(const std::string& option, const std::string& path, std::string* line, std::string* error) {
    std::ifstream in(path);
    if (!in || !std::getline(in, *line)) {
        *error = "cannot read " + option + " " + path + ": " + (errno ? std::strerror(errno) : "empty file") +
                 "; give it a readable file";
        return false;
    }
    while (!line->empty() && (line->back() == '\r' || line->back() == ' ')) line->pop_back();
    return true;
}

// The client's last error without its "(file.c:123): " prefix.
std::string LastError(natsStatus status) {
    const char* text = nats_GetLastError(nullptr);
    std::string reason = text != nullptr && *text != '\0' ? text : natsStatus_GetText(status);
    if (reason.rfind("(", 0) == 0 && reason.find("): ") != std::string::npos) reason.erase(0, reason.find("): ") + 3);
    return reason;
}

std::string Join(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : ",") + item;
    return text;
}

// JetStream answers errors while a stream's leader moves or the servers are
// away; these (a message too large, a sealed stream) will not change.
bool IsPermanent(long error_code) {
    return error_code == JSStreamMessageExceedsMaximumErr || error_code == JSStreamSealedErr;
}

// A JetStream publish answer: {"stream":"S","seq":N[,"duplicate":true]} once
// stored (a duplicate is stored under its first copy), or
// {"error":{"code":C,"err_code":E,"description":"..."}}. Returns 0 when
// stored, else the error's err_code (-1 when it has none).
long AnswerError(const char* data, int length) {
    const std::string answer(data, static_cast<size_t>(length));
    if (answer.find("\"error\":{") == std::string::npos) return answer.find("\"seq\":") != std::string::npos ? 0 : -1;
    const auto code = answer.find("\"err_code\":");
    return code == std::string::npos ? -1 : std::strtol(answer.c_str() + code + 11, nullptr, 10);
}

}  // namespace

// What a buffered message holds in memory, which --nats-buffer=N MiB bounds.
// A message not formatted yet is counted at what the module's message of a
// sched_switch record holds (its name, two maps of 12 entries).
size_t NatsOutput::Footprint(const Entry& entry) {
    constexpr size_t kUnformatted = 1536;
    return sizeof(Entry) + (entry.message ? kUnformatted : entry.data.capacity());
}

NatsOutput::NatsOutput(const NatsSettings& settings, const EventFieldTypes& types)
    : m_settings(settings), m_formatter(types), m_host(HostToken()) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    m_id_prefix = m_host + "-" + std::to_string(getpid()) + "-" +
                  std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()) + "-";
}

NatsOutput::~NatsOutput() {
    if (m_publisher.joinable()) Finish();
}

natsStatus NatsOutput::Connect(natsConnection** connection, bool retry, std::string* error) {
    natsOptions* options = nullptr;
    natsStatus status = natsOptions_Create(&options);
    if (status != NATS_OK) return status;
    std::vector<const char*> urls;
    for (const auto& url : m_settings.servers) urls.push_back(url.c_str());
    natsOptions_SetServers(options, urls.data(), static_cast<int>(urls.size()));
    natsOptions_SetName(options, "ftrace-agent");
    natsOptions_SetTimeout(options, 1000);
    natsOptions_SetMaxReconnect(options, -1);
    natsOptions_SetReconnectWait(options, 250);
    natsOptions_SetPingInterval(options, 5000);
    natsOptions_SetIOBufSize(options, 1 << 20);  // fewer, larger writes at high event rates
    natsOptions_SetDisconnectedCB(options, &NatsOutput::OnDisconnected, this);
    natsOptions_SetReconnectedCB(options, &NatsOutput::OnConnected, this);
    if (retry) natsOptions_SetRetryOnFailedConnect(options, true, &NatsOutput::OnConnected, this);
    std::string line;
    if (!m_settings.creds_file.empty()) {
        if (access(m_settings.creds_file.c_str(), R_OK) != 0) {
            ReadFirstLine("--nats-creds", m_settings.creds_file, &line, error);
            status = NATS_ERR;
        } else {
            status = natsOptions_SetUserCredentialsFromFiles(options, m_settings.creds_file.c_str(), nullptr);
        }
    }
    if (status == NATS_OK && !m_settings.token_file.empty()) {
        status = ReadFirstLine("--nats-token-file", m_settings.token_file, &line, error)
                     ? natsOptions_SetToken(options, line.c_str())
                     : NATS_ERR;
    }
    if (status == NATS_OK && !m_settings.user_file.empty()) {
        if (!ReadFirstLine("--nats-user-file", m_settings.user_file, &line, error)) {
            status = NATS_ERR;
        } else if (line.find(':') == std::string::npos) {
            *error = "--nats-user-file " + m_settings.user_file + " does not hold user:password on its first line";
            status = NATS_ERR;
        } else {
            const auto colon = line.find(':');
            status = natsOptions_SetUserInfo(options, line.substr(0, colon).c_str(), line.substr(colon + 1).c_str());
        }
    }
    if (status == NATS_OK && !m_settings.tls_ca_file.empty() && access(m_settings.tls_ca_file.c_str(), R_OK) != 0) {
        *error = "cannot read --nats-tls-ca " + m_settings.tls_ca_file + ": " + std::strerror(errno) +
                 "; give it a readable PEM file of CA certificates";
        status = NATS_ERR;
    }
    if (status == NATS_OK && !m_settings.tls_ca_file.empty()) {
        status = natsOptions_SetSecure(options, true);
        if (status == NATS_OK) status = natsOptions_LoadCATrustedCertificates(options, m_settings.tls_ca_file.c_str());
        if (status != NATS_OK) {
            *error = "cannot use --nats-tls-ca " + m_settings.tls_ca_file + ": " + LastError(status) +
                     "; give it a PEM file of CA certificates";
        }
    }
    if (status == NATS_OK) status = natsConnection_Connect(connection, options);
    natsOptions_Destroy(options);
    return status;
}

bool NatsOutput::Check(std::string* error) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTry;
    natsConnection* connection = nullptr;
    for (;;) {
        const natsStatus status = Connect(&connection, false, error);
        if (!error->empty()) return false;
        if (status == NATS_OK) break;
        const std::string reason = LastError(status);
        if (status == NATS_NOT_PERMITTED || reason.find("uthoriz") != std::string::npos) {
            *error = "NATS at " + Join(m_settings.servers) + " refused the credentials (" + reason +
                     "): check --nats-creds, --nats-token-file or --nats-user-file";
            return false;
        }
        if (status == NATS_SSL_ERROR || status == NATS_SECURE_CONNECTION_REQUIRED) {
            *error = "TLS with NATS at " + Join(m_settings.servers) + " failed (" + reason +
                     "): give --nats-tls-ca the CA certificates that signed the servers' certificates";
            return false;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            *error = "cannot reach NATS at " + Join(m_settings.servers) + " (" + natsStatus_GetText(status) +
                     "): start the servers or correct --output";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    const bool ok = PrepareStream(connection, error);
    natsConnection_Destroy(connection);
    // The library's threads would not survive the fork of --daemon: the
    // publishing connection is made by Start, after it.
    nats_CloseAndWait(2000);
    return ok;
}

bool NatsOutput::PrepareStream(natsConnection* connection, std::string* error) {
    const std::string where = "NATS at " + Join(m_settings.servers);
    jsCtx* js = nullptr;
    if (natsConnection_JetStream(&js, connection, nullptr) != NATS_OK) {
        *error = where + ": no JetStream context (" + LastError(NATS_ERR) + ")";
        return false;
    }
    bool ok = true;
    if (!m_settings.stream.empty()) {
        jsStreamInfo* info = nullptr;
        jsErrCode code = static_cast<jsErrCode>(0);
        natsStatus status = js_GetStreamInfo(&info, js, m_settings.stream.c_str(), nullptr, &code);
        if (status == NATS_NOT_FOUND) {
            jsStreamConfig config;
            jsStreamConfig_Init(&config);
            const std::string subjects = m_settings.subject_prefix + ".>";
            const char* subject_list[] = {subjects.c_str()};
            config.Name = m_settings.stream.c_str();
            config.Subjects = subject_list;
            config.SubjectsLen = 1;
            config.Replicas = m_settings.replicas;
            config.Storage = js_FileStorage;
            status = js_AddStream(&info, js, &config, nullptr, &code);
            // While a new cluster's routes settle, the answer to a create can
            // be lost although the stream was made: look for it once more.
            if (status == NATS_TIMEOUT) status = js_GetStreamInfo(&info, js, m_settings.stream.c_str(), nullptr, &code);
        }
        if (status != NATS_OK) {
            *error = where + " cannot create or find stream " + m_settings.stream + " (" + LastError(status) +
                     "): run nats-server with JetStream (-js) and enough nodes for --nats-replicas";
            ok = false;
        }
        jsStreamInfo_Destroy(info);
    }
    jsCtx_Destroy(js);
    if (!ok) return false;
    // Which stream stores this host's subjects (the JetStream API's own lookup).
    const std::string request = "{\"subject\":\"" + m_settings.subject_prefix + "." + m_host + ".x.y\"}";
    natsMsg* reply = nullptr;
    const natsStatus status =
        natsConnection_RequestString(&reply, connection, "$JS.API.STREAM.NAMES", request.c_str(), 5000);
    const std::string answer =
        status == NATS_OK ? std::string(natsMsg_GetData(reply), natsMsg_GetDataLength(reply)) : "";
    natsMsg_Destroy(reply);
    if (status != NATS_OK) {
        *error = where + " has no JetStream (" + natsStatus_GetText(status) +
                 "): run nats-server with -js, or point --output at servers that have it";
        return false;
    }
    if (answer.find("\"streams\":[\"") == std::string::npos) {
        *error = where + " has no stream for the subjects " + m_settings.subject_prefix + "." + m_host +
                 ".>: give --nats-stream=NAME to create one, or create one that takes them";
        return false;
    }
    return true;
}

void NatsOutput::Start() {
    std::string error;
    const natsStatus status = Connect(&m_connection, true, &error);
    if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) {
        Log(Poco::Message::PRIO_ERROR, "cannot connect to NATS: " + error + natsStatus_GetText(status), __LINE__);
        return;  // what arrives waits in the buffer and is counted at stop
    }
    if (status == NATS_OK) OnConnected(m_connection, this);
    natsInbox* inbox = nullptr;
    if (natsInbox_Create(&inbox) == NATS_OK) m_inbox = std::string(inbox) + ".";
    natsInbox_Destroy(inbox);
    // The client renews the subscription on every reconnect.
    if (m_inbox.empty() || natsConnection_SubscribeSync(&m_acks, m_connection, (m_inbox + "*").c_str()) != NATS_OK) {
        Log(Poco::Message::PRIO_ERROR, "cannot subscribe to NATS acknowledgements: " + LastError(NATS_ERR), __LINE__);
        return;
    }
    natsSubscription_SetPendingLimits(m_acks, -1, -1);  // the window bounds them
    m_publisher = std::thread(&NatsOutput::Publish, this);
}

void NatsOutput::Write(const Engine::FtraceMessage& message) {
    Take(std::make_shared<const Engine::FtraceMessage>(message));
}

void NatsOutput::Take(const std::shared_ptr<const Engine::FtraceMessage>& message) {
    // Formatting waits for the publisher thread: the subscriber's queue is
    // bounded too, and only this buffer counts what it cannot keep.
    m_batch.push_back({++m_sequence, message, nullptr, {}});
    if (m_batch.size() >= kBatch) Flush();
}

void NatsOutput::Format(Entry& entry) {
    const Engine::FtraceMessage& message = *entry.message;
    auto subject = m_subjects.find(message.name());
    if (subject == m_subjects.end()) {
        // system:event becomes the subject's last two tokens.
        std::string text = m_settings.subject_prefix + "." + m_host + "." + message.name();
        const auto colon = text.rfind(':');
        if (colon != std::string::npos) text[colon] = '.';
        subject = m_subjects.emplace(message.name(), std::move(text)).first;
    }
    entry.subject = &subject->second;
    // Formatted into a reused buffer, then kept in a string of its own size:
    // the buffer may hold hundreds of thousands of them.
    m_scratch.clear();
    m_formatter.AppendJson(m_scratch, message);
    entry.data = m_scratch;
    entry.message.reset();
}

bool NatsOutput::Flush() {
    if (m_batch.empty()) return true;
    bool was_empty;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        was_empty = m_queue.empty() && m_incoming.empty();
        m_counts.published += m_batch.size();
        for (auto& entry : m_batch) {
            m_queue_bytes += Footprint(entry);
            m_incoming.push_back(std::move(entry));
        }
        TrimBuffer();
    }
    m_batch.clear();
    if (was_empty) m_wake.notify_all();  // otherwise the publisher is busy or waits for acks or servers
    return true;
}

void NatsOutput::TrimBuffer() {
    while ((m_settings.buffer_messages != 0 && m_queue.size() + m_incoming.size() > m_settings.buffer_messages) ||
           (m_settings.buffer_bytes != 0 && m_queue_bytes > m_settings.buffer_bytes)) {
        auto& oldest = m_queue.empty() ? m_incoming : m_queue;
        if (oldest.empty()) break;  // (the bytes are those of messages being formatted)
        m_queue_bytes -= Footprint(oldest.front());
        oldest.pop_front();
        ++m_counts.buffer_full;
    }
}

void NatsOutput::Requeue(Entry entry) {
    m_queue_bytes += Footprint(entry);
    m_queue.push_front(std::move(entry));
    ++m_counts.retried;
    TrimBuffer();
}

void NatsOutput::Publish() {
    std::unique_lock<std::mutex> lock(m_mutex);
    std::vector<Entry> sending;
    std::vector<Entry> formatting;
    for (;;) {
        lock.unlock();
        TakeAcknowledgements();
        lock.lock();
        if (m_stopping && ((m_queue.empty() && m_incoming.empty() && m_in_flight.empty()) ||
                           std::chrono::steady_clock::now() >= m_stop_deadline)) {
            break;
        }
        // Also while nothing can be sent: formatted, a message holds a third of the memory.
        while (!m_incoming.empty() && formatting.size() < kBatch) {
            m_queue_bytes -= Footprint(m_incoming.front());
            formatting.push_back(std::move(m_incoming.front()));
            m_incoming.pop_front();
        }
        if (!formatting.empty()) {
            lock.unlock();
            for (auto& entry : formatting) Format(entry);
            lock.lock();
            for (auto& entry : formatting) {
                m_queue_bytes += Footprint(entry);
                m_queue.push_back(std::move(entry));
            }
            formatting.clear();
            TrimBuffer();
        }
        if (!m_connected || m_queue.empty() || m_in_flight.size() >= kWindow) {
            // The subscriber wakes an idle publisher when it queues.
            const auto wait = m_in_flight.empty() ? std::chrono::milliseconds(50) : kAckPoll;
            if (m_incoming.empty()) m_wake.wait_for(lock, wait);
            continue;
        }
        while (!m_queue.empty() && m_in_flight.size() + sending.size() < kWindow) {
            m_queue_bytes -= Footprint(m_queue.front());
            sending.push_back(std::move(m_queue.front()));
            m_queue.pop_front();
        }
        lock.unlock();
        const bool refused = !Send(sending);
        lock.lock();
        // What the client would not take (it is closing or its reconnect
        // buffer is full) goes back to the front, in order, and is sent again.
        for (auto entry = sending.rbegin(); entry != sending.rend(); ++entry) Requeue(std::move(*entry));
        sending.clear();
        if (refused) m_wake.wait_for(lock, std::chrono::milliseconds(50));
    }
}

bool NatsOutput::Send(std::vector<Entry>& sending) {
    std::string reply = m_inbox;
    std::string id = m_id_prefix;
    size_t sent = 0;
    natsStatus status = NATS_OK;
    for (; sent < sending.size(); ++sent) {
        Entry& entry = sending[sent];
        reply.resize(m_inbox.size());
        reply += std::to_string(m_first_reply + m_in_flight.size());
        id.resize(m_id_prefix.size());
        id += std::to_string(entry.sequence);
        natsMsg* msg = nullptr;
        status = natsMsg_Create(&msg, entry.subject->c_str(), reply.c_str(), entry.data.data(),
                                static_cast<int>(entry.data.size()));
        if (status == NATS_OK) status = natsMsgHeader_Set(msg, kMsgIdHeader, id.c_str());
        if (status == NATS_OK) status = natsConnection_PublishMsg(m_connection, msg);
        natsMsg_Destroy(msg);
        if (status == NATS_MAX_PAYLOAD) {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_counts.refused;  // larger than the servers take: sending it again would not help
            continue;
        }
        if (status != NATS_OK) break;
        m_in_flight.push_back({std::move(entry), std::chrono::steady_clock::now()});
    }
    sending.erase(sending.begin(), sending.begin() + static_cast<std::ptrdiff_t>(sent));
    return status == NATS_OK || status == NATS_MAX_PAYLOAD;
}

void NatsOutput::TakeAcknowledgements() {
    uint64_t acknowledged = 0;
    uint64_t refused = 0;
    bool resend = false;
    natsMsg* msg = nullptr;
    for (;;) {
        // No wait: an empty queue ends the batch. A "no responders" status
        // (no stream leader just now) does not say for which message; that
        // one is sent again when its wait runs out.
        const natsStatus status = natsSubscription_NextMsg(&msg, m_acks, 0);
        if (status == NATS_NO_RESPONDERS || status == NATS_SLOW_CONSUMER) continue;
        if (status != NATS_OK) break;
        const char* dot = std::strrchr(natsMsg_GetSubject(msg), '.');
        const uint64_t reply = dot != nullptr ? std::strtoull(dot + 1, nullptr, 10) : 0;
        // Answers to a message already taken back for resending are stale.
        if (reply >= m_first_reply && reply - m_first_reply < m_in_flight.size() &&
            !m_in_flight[reply - m_first_reply].answered) {
            InFlight& message = m_in_flight[reply - m_first_reply];
            message.answered = true;
            const long error = AnswerError(natsMsg_GetData(msg), natsMsg_GetDataLength(msg));
            if (error != 0 && !IsPermanent(error)) {
                message.resend = resend = true;
            } else {
                ++(error == 0 ? acknowledged : refused);
                std::string().swap(message.entry.data);  // freed now, not once the front is answered
            }
        }
        natsMsg_Destroy(msg);
    }
    // Unanswered for too long: lost with a connection, or the server is overloaded.
    const auto expired = std::chrono::steady_clock::now() - kAckWait;
    for (auto& message : m_in_flight) {
        if (message.sent > expired) break;
        if (!message.answered) message.answered = message.resend = resend = true;
    }
    std::vector<Entry> again;
    if (resend) {
        for (auto& message : m_in_flight) {
            if (message.resend) again.push_back(std::move(message.entry));
            message.resend = false;
        }
    }
    while (!m_in_flight.empty() && m_in_flight.front().answered) {
        m_in_flight.pop_front();
        ++m_first_reply;
    }
    if (acknowledged != 0) m_acknowledged.fetch_add(acknowledged, std::memory_order_relaxed);
    if (again.empty() && refused == 0) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_counts.refused += refused;
    // Sent again in their first order, ahead of what waits.
    for (auto entry = again.rbegin(); entry != again.rend(); ++entry) Requeue(std::move(*entry));
}

void NatsOutput::OnDisconnected(natsConnection*, void* closure) {
    auto* self = static_cast<NatsOutput*>(closure);
    bool was_connected;
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        was_connected = self->m_connected;
        self->m_connected = false;
    }
    if (was_connected) {
        Log(Poco::Message::PRIO_WARNING, "lost the NATS connection; keeping messages until it is back", __LINE__);
    }
}

void NatsOutput::OnConnected(natsConnection* connection, void* closure) {
    auto* self = static_cast<NatsOutput*>(closure);
    char url[256] = {};
    natsConnection_GetConnectedUrl(connection, url, sizeof url);
    Log(Poco::Message::PRIO_INFORMATION, std::string("publishing to NATS at ") + url, __LINE__);
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_connected = true;
    }
    self->m_wake.notify_all();
}

void NatsOutput::Finish() {
    Flush();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_stop_deadline = std::chrono::steady_clock::now() + kDrainAtStop;
    }
    m_wake.notify_all();
    if (m_publisher.joinable()) m_publisher.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected = false;  // no warning for our own close
    }
    natsSubscription_Destroy(m_acks);
    if (m_connection != nullptr) natsConnection_Destroy(m_connection);
    m_acks = nullptr;
    m_connection = nullptr;
    // Callbacks still under way end here.
    nats_CloseAndWait(5000);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& message : m_in_flight) m_counts.unsent_at_stop += message.answered ? 0 : 1;
    m_counts.unsent_at_stop += m_queue.size() + m_incoming.size();
    m_queue.clear();
    m_incoming.clear();
    m_queue_bytes = 0;
    m_in_flight.clear();
}

void NatsOutput::PrintSummary(std::ostream& os) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Counts& c = m_counts;
    os << "  NATS: published " << c.published << ", acknowledged " << m_acknowledged << ", retried " << c.retried
       << '\n'
       << "  NATS dropped: " << c.buffer_full + c.refused + c.unsent_at_stop << " (buffer full " << c.buffer_full
       << ", refused by the server " << c.refused << ", unacknowledged at stop " << c.unsent_at_stop << ")\n";
}

}  // namespace Agent
