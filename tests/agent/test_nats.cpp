// ftrace-agent publishing to real nats-server processes on loopback ports,
// with JetStream stores in temporary directories: what arrives, what an
// outage costs, and what is refused before tracing starts.

#include <arpa/inet.h>
#include <nats/nats.h>

#include <regex>

#include "TracefsTest.h"

namespace {

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

// Every message of the stream, each as (subject, data).
std::vector<std::pair<std::string, std::string>> StreamMessages(const std::string& urls, const char* stream) {
    std::vector<std::pair<std::string, std::string>> messages;
    natsConnection* connection = nullptr;
    jsCtx* js = nullptr;
    jsStreamInfo* info = nullptr;
    natsSubscription* subscription = nullptr;
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream;
    options.Config.AckPolicy = js_AckNone;  // (libnats 3.4 aborts on some ordered-consumer resets)
    if (natsConnection_ConnectTo(&connection, urls.c_str()) == NATS_OK &&
        natsConnection_JetStream(&js, connection, nullptr) == NATS_OK &&
        js_GetStreamInfo(&info, js, stream, nullptr, nullptr) == NATS_OK &&
        js_SubscribeSync(&subscription, js, ">", nullptr, &options, nullptr) == NATS_OK) {
        natsMsg* msg = nullptr;
        while (messages.size() < info->State.Msgs && natsSubscription_NextMsg(&msg, subscription, 5000) == NATS_OK) {
            messages.emplace_back(natsMsg_GetSubject(msg),
                                  std::string(natsMsg_GetData(msg), natsMsg_GetDataLength(msg)));
            natsMsg_Destroy(msg);
        }
    }
    if (subscription != nullptr) natsSubscription_Unsubscribe(subscription);  // and its consumer with it
    natsSubscription_Destroy(subscription);
    jsStreamInfo_Destroy(info);
    jsCtx_Destroy(js);
    natsConnection_Destroy(connection);
    return messages;
}

uint64_t SummaryCount(const std::string& summary, const std::string& label) {
    std::smatch match;
    const std::regex pattern(label + " ([0-9]+)");
    return std::regex_search(summary, match, pattern) ? std::stoull(match[1]) : ~0ull;
}

std::string HostToken() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    std::string token = name;
    for (char& c : token) c = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' ? c : '_';
    return token;
}

class NatsTest : public TracefsTest {
protected:
    // N nats-server nodes on 127.0.0.1, one JetStream cluster when N > 1.
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
            std::string command = "nats-server -a 127.0.0.1 -p " + std::to_string(m_nodes[i].port) + " -js -sd " +
                                  m_dir + "/n" + name + " -n n" + name;
            if (m_nodes.size() > 1) {
                command += " --cluster_name ftrace --cluster " + Route(m_nodes[i]) + " --routes ";
                for (const auto& node : m_nodes) command += Route(node) + (&node == &m_nodes.back() ? "" : ",");
            }
            command = "exec " + command + m_extra + " 2>>" + m_dir + "/log" + name;
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
        static std::string Url(int port) { return "nats://127.0.0.1:" + std::to_string(port); }
        // Until JetStream answers (in a cluster: once it elected its leader).
        bool WaitReady(const std::string& user = "") const {
            std::string urls;
            for (const auto& node : m_nodes)
                urls += (urls.empty() ? "nats://" : ",nats://") + user + "127.0.0.1:" + std::to_string(node.port);
            return WaitFor(
                [&] {
                    natsConnection* connection = nullptr;
                    jsCtx* js = nullptr;
                    jsAccountInfo* info = nullptr;
                    const bool ready = natsConnection_ConnectTo(&connection, urls.c_str()) == NATS_OK &&
                                       natsConnection_JetStream(&js, connection, nullptr) == NATS_OK &&
                                       js_GetAccountInfo(&info, js, nullptr, nullptr) == NATS_OK;
                    jsAccountInfo_Destroy(info);
                    jsCtx_Destroy(js);
                    natsConnection_Destroy(connection);
                    return ready;
                },
                30);
        }

    private:
        struct Node {
            int port;
            int cluster_port;
            pid_t pid;
        };
        static std::string Route(const Node& node) { return "nats://127.0.0.1:" + std::to_string(node.cluster_port); }
        std::string m_dir;
        std::vector<Node> m_nodes;
        std::string m_extra;  // more nats-server options
    };
};

// Process life of a uniquely named binary spawned in a loop while the
// servers fail: every message is acknowledged once stored, or dropped and
// counted; an acknowledged message is in the stream exactly once.
TEST_F(NatsTest, PublishedMessagesAreStoredOrCountedThroughOutages) {
    enum Fault { kNone, kOneNode, kAllNodes };
    const struct {
        const char* name;
        int nodes;
        Fault fault;
        const char* buffer;  // --nats-buffer
        bool drops;          // whether some messages must be dropped
    } cases[] = {
        {"one server", 1, kNone, "64MiB", false},
        {"cluster of 3, stream of 3 replicas, one node killed and back", 3, kOneNode, "64MiB", false},
        {"every server down and back", 1, kAllNodes, "64MiB", false},
        {"every server down and back, tiny buffer", 1, kAllNodes, "4", true},
    };
    const std::string binary = "/tmp/ftrace-nats-true-" + std::to_string(getpid());
    ASSERT_EQ(std::system(("cp /bin/true " + binary).c_str()), 0);
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
            while (spawning) pids.push_back(SpawnTrue(binary.c_str()));
        });
        // Under way before the fault.
        EXPECT_TRUE(WaitFor([&] { return StreamMessages(servers.Urls(), "FTRACE").size() >= 30; }, 30));
        if (c.fault != kNone) {
            for (int i = 0; i < (c.fault == kAllNodes ? c.nodes : 1); ++i) servers.Kill(i);
            std::this_thread::sleep_for(std::chrono::seconds(3));  // the outage itself
            for (int i = 0; i < (c.fault == kAllNodes ? c.nodes : 1); ++i) servers.Start(i);
            EXPECT_TRUE(servers.WaitReady()) << "no JetStream after the restart";
        }
        spawning = false;
        spawner.join();
        // Records still in the kernel at the stop are not the output's to count: stop once the last child is in.
        const pid_t last = pids.back();
        const auto exit_stored = [&] {
            PrintedEvents printed;
            for (const auto& [subject, data] : StreamMessages(servers.Urls(), "FTRACE"))
                printed.Line(data.data(), data.size());
            return printed.Printed(last, false);
        };
        EXPECT_TRUE(c.drops || WaitFor(exit_stored, 30));
        agent.Signal(SIGTERM);
        ASSERT_EQ(agent.Wait(std::chrono::seconds(60)), 0) << agent.Stderr();
        const std::string summary = agent.Stderr();
        const uint64_t published = SummaryCount(summary, "NATS: published");
        const uint64_t acknowledged = SummaryCount(summary, "acknowledged");
        const uint64_t dropped = SummaryCount(summary, "NATS dropped:");
        EXPECT_EQ(published, acknowledged + dropped) << summary;
        EXPECT_EQ(dropped != 0, c.drops) << summary;
        const auto messages = StreamMessages(servers.Urls(), "FTRACE");
        // Re-sent messages carry their first id, so JetStream keeps one copy.
        EXPECT_EQ(messages.size(), acknowledged) << summary;
        if (c.drops) continue;
        PrintedEvents printed;
        for (const auto& [subject, data] : messages) printed.Line(data.data(), data.size());
        for (const pid_t pid : pids) EXPECT_TRUE(printed.Printed(pid, true) && printed.Printed(pid, false)) << pid;
        // The payload is the line --format=json prints for the exec.
        const std::string exec_subject = "ftrace." + HostToken() + ".sched.sched_process_exec";
        const std::string pid = std::to_string(last);
        const std::regex exec_json(
            R"(\{"name":"sched:sched_process_exec","numbers":\{"common_flags":[0-9]+,"common_pid":)" + pid +
            R"(,"common_preempt_count":[0-9]+,"common_type":[0-9]+,"old_pid":)" + pid + R"(,"pid":)" + pid +
            R"(,"timestamp":[0-9]+\},"strings":\{"filename":")" + binary + R"((\\u0000)*"\}\})");
        EXPECT_TRUE(std::any_of(
            messages.begin(), messages.end(),
            [&](const auto& m) { return m.first == exec_subject && std::regex_match(m.second, exec_json); }))
            << "no exec of " << binary << " by pid " << pid;
    }
    unlink(binary.c_str());
}

// Refused before the tracing instance is made: status 2 and one line.
TEST_F(NatsTest, BadConfigurationIsRefusedWithOneLine) {
    NatsServers open_server(1);
    NatsServers locked_server(1, " --user agent --pass agent");
    ASSERT_TRUE(open_server.WaitReady());
    ASSERT_TRUE(locked_server.WaitReady("agent:agent@"));
    const std::string wrong = "/tmp/ftrace-nats-wrong-" + std::to_string(getpid());
    std::ofstream(wrong) << "agent:not-the-password\n";
    // TLS only, with a certificate for 127.0.0.1 that is its own CA.
    const std::string cert = wrong + ".pem";
    ASSERT_EQ(std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                           "subjectAltName=IP:127.0.0.1 -keyout " + cert + " -out " + cert + " 2>/dev/null")
                              .c_str()),
              0);
    NatsServers tls_server(1, " --tls --tlscert " + cert + " --tlskey " + cert);
    const std::string nobody = NatsTest::NatsServers::Url(FreePort());
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
        {{"--output=" + locked_server.Urls(), "--nats-user-file=" + wrong},
         "NATS at " + locked_server.Urls() +
             " refused the credentials (Authorization Violation): check --nats-creds, --nats-token-file or "
             "--nats-user-file\n"},
        {{"--output=" + open_server.Urls()},
         "NATS at " + open_server.Urls() + " has no stream for the subjects ftrace." + HostToken() +
             ".>: give --nats-stream=NAME to create one, or create one that takes them\n"},
        // Over TLS as far as JetStream's answer.
        {{"--output=" + tls_server.Urls(), "--nats-tls-ca=" + cert},
         "NATS at " + tls_server.Urls() + " has no stream for the subjects ftrace." + HostToken() +
             ".>: give --nats-stream=NAME to create one, or create one that takes them\n"},
        {{"--output=" + tls_server.Urls()},
         "TLS with NATS at " + tls_server.Urls() +
             " failed (SSL handshake error: 18:self-signed certificate:depth=0:cert=/CN=127.0.0.1:issuer=/CN=127.0.0.1)"
             ": give --nats-tls-ca the CA certificates that signed the servers' certificates\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderr_text);
        AgentProcess agent(c.options);
        EXPECT_EQ(agent.Wait(std::chrono::seconds(30)), 2);
        EXPECT_EQ(agent.Stderr(), c.stderr_text);
        EXPECT_EQ(agent.Stdout(), "");
        EXPECT_FALSE(ZevExists());
    }
    unlink(wrong.c_str());
    unlink(cert.c_str());
}

}  // namespace
