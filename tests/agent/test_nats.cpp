// ftrace-agent publishing to real nats-server processes on loopback ports,
// with JetStream stores in temporary directories: what arrives, what an
// outage costs, and what is refused before tracing starts.

#include <arpa/inet.h>
#include <nats/nats.h>

#include <regex>

#include "TracefsTest.h"

namespace {

using NatsTest = TracefsTest;

int FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

std::string Url(int port) { return "nats://127.0.0.1:" + std::to_string(port); }

// A client of the servers at `urls`; js stays null when none answers.
struct JetStream {
    explicit JetStream(const std::string& urls) {
        if (natsConnection_ConnectTo(&connection, urls.c_str()) == NATS_OK)
            natsConnection_JetStream(&js, connection, nullptr);
    }
    ~JetStream() {
        jsCtx_Destroy(js);
        natsConnection_Destroy(connection);
    }
    natsConnection* connection = nullptr;
    jsCtx* js = nullptr;
};

// Every message of the stream FTRACE as (subject, data); their events go to `printed`.
std::vector<std::pair<std::string, std::string>> StreamMessages(const std::string& urls, PrintedEvents& printed) {
    std::vector<std::pair<std::string, std::string>> messages;
    JetStream client(urls);
    jsStreamInfo* info = nullptr;
    natsSubscription* subscription = nullptr;
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = "FTRACE";
    options.Config.AckPolicy = js_AckNone;  // (libnats 3.4 aborts on some ordered-consumer resets)
    if (client.js && js_GetStreamInfo(&info, client.js, "FTRACE", nullptr, nullptr) == NATS_OK &&
        js_SubscribeSync(&subscription, client.js, ">", nullptr, &options, nullptr) == NATS_OK) {
        natsMsg* msg = nullptr;
        while (messages.size() < info->State.Msgs && natsSubscription_NextMsg(&msg, subscription, 5000) == NATS_OK) {
            const auto& [subject, data] = messages.emplace_back(
                natsMsg_GetSubject(msg), std::string(natsMsg_GetData(msg), natsMsg_GetDataLength(msg)));
            printed.Line(data.data(), data.size());
            natsMsg_Destroy(msg);
        }
    }
    if (subscription != nullptr) natsSubscription_Unsubscribe(subscription);  // and its consumer with it
    natsSubscription_Destroy(subscription);
    jsStreamInfo_Destroy(info);
    return messages;
}

uint64_t SummaryCount(const std::string& summary, const std::string& label) {
    std::smatch match;
    return std::regex_search(summary, match, std::regex(label + " ([0-9]+)")) ? std::stoull(match[1]) : ~0ull;
}

std::string HostToken() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return std::regex_replace(name, std::regex("[^A-Za-z0-9_-]"), "_");
}

// N nats-server nodes with JetStream on 127.0.0.1, one cluster when N > 1;
// `extra` adds options.
class NatsServers {
public:
    explicit NatsServers(int nodes, const std::string& extra = "") : m_extra(extra) {
        char dir[] = "/tmp/ftrace-nats-XXXXXX";
        m_dir = mkdtemp(dir);
        for (int i = 0; i < nodes; ++i) m_nodes.push_back({FreePort(), FreePort(), -1});
        for (int i = 0; i < nodes; ++i) Start(i);
    }
    ~NatsServers() {
        for (size_t i = 0; i < m_nodes.size(); ++i) Kill(i);
        if (!::testing::Test::HasFailure()) std::system(("rm -rf " + m_dir).c_str());  // kept with its logs
    }
    void Start(size_t i) {
        const std::string name = std::to_string(i);
        std::string command = "exec nats-server -a 127.0.0.1 -p " + std::to_string(m_nodes[i].port) + " -js -sd " +
                              m_dir + "/n" + name + " -n n" + name + m_extra;
        if (m_nodes.size() > 1) {
            command += " --cluster_name ftrace --cluster " + Url(m_nodes[i].cluster_port) + " --routes ";
            for (const auto& node : m_nodes) command += Url(node.cluster_port) + (&node == &m_nodes.back() ? "" : ",");
        }
        command += " 2>>" + m_dir + "/log" + name;
        m_nodes[i].pid = fork();
        if (m_nodes[i].pid == 0) {
            // Gone with the test, and without its descriptors (a held flock among them).
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            closefrom(3);
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void Kill(size_t i) {
        if (m_nodes[i].pid <= 0) return;
        kill(m_nodes[i].pid, SIGKILL);
        waitpid(m_nodes[i].pid, nullptr, 0);
        m_nodes[i].pid = -1;
    }
    std::string Urls() const {
        std::string urls;
        for (const auto& node : m_nodes) urls += (urls.empty() ? "" : ",") + Url(node.port);
        return urls;
    }
    // Until JetStream answers (in a cluster: once it elected its leader).
    bool WaitReady() const {
        return WaitFor([&] {
            JetStream client(Urls());
            jsAccountInfo* info = nullptr;
            const bool ready = client.js && js_GetAccountInfo(&info, client.js, nullptr, nullptr) == NATS_OK;
            jsAccountInfo_Destroy(info);
            return ready;
        }, 30);
    }

private:
    struct Node {
        int port;
        int cluster_port;
        pid_t pid;
    };
    std::string m_dir;
    std::vector<Node> m_nodes;
    std::string m_extra;
};

// Process life while the first server is down for a while: every message is
// acknowledged once stored, or dropped and counted; an acknowledged message is
// in the stream exactly once.
TEST_F(NatsTest, PublishedMessagesAreStoredOrCountedThroughOutages) {
    const struct {
        const char* name;
        int nodes;
        const char* buffer;  // --nats-buffer
        bool drops;          // whether some messages must be dropped
    } cases[] = {
        {"cluster of 3, stream of 3 replicas, one node down and back", 3, "64MiB", false},
        {"the only server down and back", 1, "64MiB", false},
        {"the only server down and back, tiny buffer", 1, "4", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NatsServers servers(c.nodes);
        ASSERT_TRUE(servers.WaitReady());
        AgentProcess agent({"--output=" + servers.Urls(), "--nats-stream=FTRACE",
                            "--nats-replicas=" + std::to_string(c.nodes), "--nats-buffer=" + std::string(c.buffer)});
        // The last of the three events to go on: every child has its exec and exit.
        if (!WaitUntilTracing(agent, "sched_process_exit")) break;
        std::atomic<bool> spawning{true};
        std::vector<pid_t> pids;
        std::thread spawner([&] {
            while (spawning) pids.push_back(SpawnTrue());
        });
        PrintedEvents ignored;
        EXPECT_TRUE(WaitFor([&] { return StreamMessages(servers.Urls(), ignored).size() >= 30; }, 30));
        servers.Kill(0);
        std::this_thread::sleep_for(std::chrono::seconds(3));  // the outage itself
        servers.Start(0);
        EXPECT_TRUE(servers.WaitReady()) << "no JetStream after the restart";
        spawning = false;
        spawner.join();
        // Records still in the kernel at the stop are not the output's to count: stop once the last child is in.
        const pid_t last = pids.back();
        EXPECT_TRUE(c.drops || WaitFor([&] {
            PrintedEvents printed;
            StreamMessages(servers.Urls(), printed);
            return printed.Printed(last, false);
        }, 30));
        agent.Signal(SIGTERM);
        ASSERT_EQ(agent.Wait(std::chrono::seconds(60)), 0) << agent.Stderr();
        const std::string summary = agent.Stderr();
        const uint64_t published = SummaryCount(summary, "NATS: published");
        const uint64_t acknowledged = SummaryCount(summary, "acknowledged");
        const uint64_t dropped = SummaryCount(summary, "NATS dropped:");
        EXPECT_EQ(published, acknowledged + dropped) << summary;
        EXPECT_EQ(dropped != 0, c.drops) << summary;
        PrintedEvents printed;
        const auto messages = StreamMessages(servers.Urls(), printed);
        // Re-sent messages carry their first id, so JetStream keeps one copy.
        EXPECT_EQ(messages.size(), acknowledged) << summary;
        for (const pid_t pid : pids)
            EXPECT_TRUE(c.drops || (printed.Printed(pid, true) && printed.Printed(pid, false))) << pid;
        // The payload is the --format=json line, on the subject ftrace.<host>.<system>.<event>.
        const std::string exec_subject = "ftrace." + HostToken() + ".sched.sched_process_exec";
        EXPECT_TRUE(c.drops || std::any_of(messages.begin(), messages.end(), [&](const auto& m) {
            return m.first == exec_subject && m.second.find(",\"pid\":" + std::to_string(last) + ",") != m.second.npos;
        })) << "no exec of pid " << last << " on " << exec_subject;
    }
}

// Refused before the tracing instance is made: status 2 and one line.
TEST_F(NatsTest, BadConfigurationIsRefusedWithOneLine) {
    // TLS only, with a password and a certificate for 127.0.0.1 that is its own CA.
    const std::string cert = "/tmp/ftrace-nats-" + std::to_string(getpid()) + ".pem", wrong = cert + ".user";
    ASSERT_EQ(std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                           "subjectAltName=IP:127.0.0.1 -keyout " + cert + " -out " + cert + " 2>/dev/null")
                              .c_str()),
              0);
    std::ofstream(wrong) << "agent:not-the-password\n";
    NatsServers tls_server(1, " --tls --tlscert " + cert + " --tlskey " + cert + " --user agent --pass agent");
    NatsServers open_server(1);
    ASSERT_TRUE(open_server.WaitReady());
    const std::string nobody = Url(FreePort());
    const struct {
        std::vector<std::string> options;
        std::string stderr_text;
    } cases[] = {
        {{"--output=nats//127.0.0.1:4222"},
         "ftrace-agent: Invalid option argument: --output: 'nats//127.0.0.1:4222' is not nats://HOST:PORT; give "
         "--output=nats://HOST:PORT[,nats://HOST:PORT...]; see ftrace-agent --help\n"},
        {{"--output=" + nobody},
         "cannot reach NATS at " + nobody +
             " (No server available for connection): start the servers or correct --output\n"},
        {{"--output=" + open_server.Urls()},
         "NATS at " + open_server.Urls() + " has no stream for the subjects ftrace." + HostToken() +
             ".>: give --nats-stream=NAME to create one, or create one that takes them\n"},
        {{"--output=" + tls_server.Urls()},
         "TLS with NATS at " + tls_server.Urls() +
             " failed (SSL handshake error: 18:self-signed certificate:depth=0:cert=/CN=127.0.0.1:issuer=/CN=127.0.0.1)"
             ": give --nats-tls-ca the CA certificates that signed the servers' certificates\n"},
        // Over TLS as far as the server's answer to the credentials.
        {{"--output=" + tls_server.Urls(), "--nats-tls-ca=" + cert, "--nats-user-file=" + wrong},
         "NATS at " + tls_server.Urls() +
             " refused the credentials (Authorization Violation): check --nats-creds, --nats-token-file or "
             "--nats-user-file\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderr_text);
        AgentProcess agent(c.options);
        EXPECT_EQ(agent.Wait(std::chrono::seconds(30)), 2);
        EXPECT_EQ(agent.Stderr(), c.stderr_text);
        EXPECT_EQ(agent.Stdout(), "");
    }
    unlink(wrong.c_str());
    unlink(cert.c_str());
}

}  // namespace
