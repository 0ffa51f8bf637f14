// nats_tail: prints every trace event that ftrace-agents publish on the
// subjects matching a pattern, one "subject json" line per message, until
// Ctrl-C.
//
//   nats_tail [--creds FILE] URLS [SUBJECT_PATTERN]
//
// URLS is a comma-separated list (nats://a:4222,nats://b:4222); the pattern
// defaults to "ftrace.>" (every host, every event). "ftrace.web1.>" is one
// host, "ftrace.*.sched.sched_process_exec" one event on every host. This
// is a plain subscription: it sees what is published while it runs. The
// JetStream stream keeps the history for consumers that need to catch up.

#include <nats/nats.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) {
    g_stop = true;
}

void OnMessage(natsConnection*, natsSubscription*, natsMsg* msg, void*) {
    std::printf("%s %.*s\n", natsMsg_GetSubject(msg), natsMsg_GetDataLength(msg), natsMsg_GetData(msg));
    std::fflush(stdout);
    natsMsg_Destroy(msg);
}

int Fail(const char* what, natsStatus status) {
    const char* text = nats_GetLastError(nullptr);
    std::fprintf(stderr, "nats_tail: %s: %s\n", what, text != nullptr ? text : natsStatus_GetText(status));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int arg = 1;
    const char* creds = nullptr;
    if (argc > 2 && std::strcmp(argv[1], "--creds") == 0) {
        creds = argv[2];
        arg = 3;
    }
    if (argc - arg < 1 || argc - arg > 2) {
        std::fprintf(stderr, "usage: nats_tail [--creds FILE] nats://HOST:PORT[,...] [SUBJECT_PATTERN]\n");
        return 2;
    }
    const std::string pattern = argc - arg == 2 ? argv[arg + 1] : "ftrace.>";

    natsOptions* options = nullptr;
    natsConnection* connection = nullptr;
    natsSubscription* subscription = nullptr;
    natsStatus status = natsOptions_Create(&options);
    if (status == NATS_OK) status = natsOptions_SetMaxReconnect(options, -1);  // follow the cluster through outages
    if (status == NATS_OK && creds != nullptr)
        status = natsOptions_SetUserCredentialsFromFiles(options, creds, nullptr);
    // SetURL takes one URL; the list goes through SetServers.
    std::string urls = argv[arg];
    std::vector<std::string> servers;
    for (size_t start = 0, comma; start <= urls.size(); start = comma + 1) {
        comma = urls.find(',', start);
        if (comma == std::string::npos) comma = urls.size();
        servers.push_back(urls.substr(start, comma - start));
    }
    std::vector<const char*> server_list;
    for (const auto& server : servers) server_list.push_back(server.c_str());
    if (status == NATS_OK)
        status = natsOptions_SetServers(options, server_list.data(), static_cast<int>(server_list.size()));
    if (status == NATS_OK) status = natsConnection_Connect(&connection, options);
    if (status != NATS_OK) return Fail("cannot connect", status);
    status = natsConnection_Subscribe(&subscription, connection, pattern.c_str(), OnMessage, nullptr);
    if (status != NATS_OK) return Fail("cannot subscribe", status);
    std::fprintf(stderr, "nats_tail: listening on %s\n", pattern.c_str());

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    while (!g_stop) nats_Sleep(200);

    natsSubscription_Destroy(subscription);
    natsConnection_Destroy(connection);
    natsOptions_Destroy(options);
    nats_Close();
    return 0;
}
