// ftrace-agent publishing to real nats-server processes on loopback ports,
// with JetStream stores in temporary directories: what arrives, what an
// outage costs, and what is refused before tracing starts.

#include <arpa/inet.h>
#include <nats/nats.h>

#include <deque>
#include <regex>

#include "TracefsTest.h"

namespace {

using NatsTest = TracefsTest;

int FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};  // port 0: the kernel picks a free one
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

std::string Url(int port) { return "nats://127.0.0.1:" + std::to_string(port); }

// Every message of the stream FTRACE as (subject, data); their events go to `printed`.
std::vector<std::pair<std::string, std::string>> StreamMessages(const std::string& url, PrintedEvents& printed) {
    std::vector<std::pair<std::string, std::string>> messages;
    natsConnection* connection = nullptr;
    jsCtx* js = nullptr;
    jsStreamInfo* info = nullptr;
    natsMsg* msg = nullptr;
    if (natsConnection_ConnectTo(&connection, url.c_str()) == NATS_OK &&
        natsConnection_JetStream(&js, connection, nullptr) == NATS_OK &&
        js_GetStreamInfo(&info, js, "FTRACE", nullptr, nullptr) == NATS_OK) {
        for (uint64_t seq = info->State.FirstSeq; seq <= info->State.LastSeq; ++seq) {
            if (js_GetMsg(&msg, js, "FTRACE", seq, nullptr, nullptr) != NATS_OK) break;
            const auto& [subject, data] = messages.emplace_back(
                natsMsg_GetSubject(msg), std::string(natsMsg_GetData(msg), natsMsg_GetDataLength(msg)));
            printed.Line(data.data(), data.size());
            natsMsg_Destroy(msg);
        }
    }
    jsStreamInfo_Destroy(info);
    jsCtx_Destroy(js);
    natsConnection_Destroy(connection);
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

// A nats-server with JetStream on 127.0.0.1, its store and log in a
// temporary directory; `extra` adds options.
class NatsServer {
public:
    explicit NatsServer(const std::string& extra = "") : m_port(FreePort()) {
        char dir[] = "/tmp/ftrace-nats-XXXXXX";
        m_dir = mkdtemp(dir);
        m_command = "exec nats-server -a 127.0.0.1 -p " + std::to_string(m_port) + " -js -sd " + m_dir + extra +
                    " 2>>" + m_dir + "/log";
        Start();
    }
    ~NatsServer() {
        Kill();
        if (!::testing::Test::HasFailure()) std::system(("rm -rf " + m_dir).c_str());  // kept with its log
    }
    void Start() {
        std::rename((m_dir + "/log").c_str(), (m_dir + "/log.before").c_str());
        m_pid = fork();
        if (m_pid == 0) {
            // Gone with the test, and without its descriptors (a held flock among them).
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            closefrom(3);
            execl("/bin/sh", "sh", "-c", m_command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void Kill() {
        if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    std::string Url() const { return ::Url(m_port); }
    // Until it logs `text`; each start begins a new log.
    bool WaitReady(const std::string& text = "Server is ready") const {
        const auto ready = [&] { return test_support::ReadAll(m_dir + "/log").find(text) != m_dir.npos; };
        return WaitFor(ready, 30);
    }

private:
    int m_port;
    pid_t m_pid = -1;
    std::string m_dir;
    std::string m_command;
};

// Process life while servers fail: every message is acknowledged once
// stored, or dropped and counted; an acknowledged message is in the stream
// exactly once.
TEST_F(NatsTest, PublishedMessagesAreStoredOrCountedThroughOutages) {
    const struct {
        int nodes;           // a JetStream cluster of that many, the stream with as many replicas
        const char* buffer;  // --nats-buffer
        bool drops;          // whether some messages must be dropped
    } cases[] = {{1, "64MiB", false}, {3, "64MiB", false}, {1, "4", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.nodes) + " nodes, buffer " + c.buffer);
        std::string routes, urls;
        std::vector<int> cluster_ports;
        for (int i = 0; i < c.nodes; ++i) cluster_ports.push_back(FreePort());
        for (const int port : cluster_ports) routes += (routes.empty() ? "" : ",") + Url(port);
        std::deque<NatsServer> servers;
        for (int i = 0; i < c.nodes; ++i) {
            servers.emplace_back(c.nodes == 1 ? "" : " -n n" + std::to_string(i) + " --cluster_name ftrace --cluster " +
                                                         Url(cluster_ports[i]) + " --routes " + routes);
            urls += "," + servers.back().Url();
        }
        // A cluster takes JetStream requests once it has a leader.
        const char* ready = c.nodes == 1 ? "Server is ready" : "metadata leader";
        for (const auto& server : servers) ASSERT_TRUE(server.WaitReady(ready));
        // The first server of the list never answers.
        AgentProcess agent({"--output=" + Url(FreePort()) + urls, "--nats-stream=FTRACE",
                            "--nats-replicas=" + std::to_string(c.nodes), "--nats-buffer=" + std::string(c.buffer)});
        urls.erase(0, 1);
        // The last of the three events to go on: every child has its exec and exit.
        if (!WaitUntilTracing(agent, "sched_process_exit")) break;
        std::atomic<bool> spawning{true};
        std::vector<pid_t> pids;
        std::thread spawner([&] {
            while (spawning) pids.push_back(SpawnTrue());
        });
        PrintedEvents ignored;
        EXPECT_TRUE(WaitFor([&] { return StreamMessages(urls, ignored).size() >= 30; }, 30));
        servers.front().Kill();  // the only server, or one node of the cluster
        std::this_thread::sleep_for(std::chrono::seconds(3));
        servers.front().Start();
        EXPECT_TRUE(servers.front().WaitReady(ready)) << "not restarted";
        spawning = false;
        spawner.join();
        // Records still in the kernel at the stop are not the output's to count: stop once the last child is in.
        const pid_t last = pids.back();
        EXPECT_TRUE(c.drops || WaitFor([&] {
            PrintedEvents printed;
            StreamMessages(urls, printed);
            return printed.Printed(last, false);
        }, 30));
        agent.Signal(SIGTERM);
        ASSERT_EQ(agent.Wait(std::chrono::seconds(60)), 0) << agent.Stderr();
        const std::string summary = agent.Stderr();
        const uint64_t acknowledged = SummaryCount(summary, "acknowledged");
        const uint64_t dropped = SummaryCount(summary, "NATS dropped:");
        EXPECT_EQ(SummaryCount(summary, "NATS: published"), acknowledged + dropped) << summary;
        EXPECT_EQ(dropped != 0, c.drops) << summary;
        PrintedEvents printed;
        const auto messages = StreamMessages(urls, printed);
        // Re-sent messages carry their first id, so JetStream keeps one copy.
        EXPECT_EQ(messages.size(), acknowledged) << summary;
        if (c.drops) continue;
        for (const pid_t pid : pids) EXPECT_TRUE(printed.Printed(pid, true) && printed.Printed(pid, false)) << pid;
        // The payload is the --format=json line, on the subject ftrace.<host>.<system>.<event>.
        const std::string pid = std::to_string(last), exec_subject = "ftrace." + HostToken() + ".sched.sched_process_exec";
        const std::regex exec_json(
            R"(\{"name":"sched:sched_process_exec","numbers":\{"common_flags":[0-9]+,"common_pid":)" + pid +
            R"(,"common_preempt_count":[0-9]+,"common_type":[0-9]+,"old_pid":)" + pid + R"(,"pid":)" + pid +
            R"(,"timestamp":[0-9]+\},"strings":\{"filename":"/bin/true(\\u0000)*"\}\})");
        EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), [&](const auto& m) {
            return m.first == exec_subject && std::regex_match(m.second, exec_json);
        })) << "no exec of pid " << pid << " on " << exec_subject;
    }
}

// Refused before the tracing instance is made: status 2 and one line.
TEST_F(NatsTest, BadConfigurationIsRefusedWithOneLine) {
    // TLS only, with a password and a certificate for 127.0.0.1 that is its own CA.
    char dir[] = "/tmp/ftrace-nats-tls-XXXXXX";
    const std::string cert = mkdtemp(dir) + std::string("/cert.pem"), wrong = cert + ".wrong", right = cert + ".right";
    const std::string openssl = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                                "subjectAltName=IP:127.0.0.1 -keyout " + cert + " -out " + cert + " 2>/dev/null";
    ASSERT_EQ(std::system(openssl.c_str()), 0);
    std::ofstream(wrong) << "agent:not-the-password\n";
    std::ofstream(right) << "agent:agent\n";
    NatsServer server(" --tls --tlscert " + cert + " --tlskey " + cert + " --user agent --pass agent");
    ASSERT_TRUE(server.WaitReady());
    const std::string nobody = Url(FreePort()), tls = "--nats-tls-ca=" + cert;
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
        {{"--output=" + server.Url(), "--nats-user-file=" + right},
         "TLS with NATS at " + server.Url() +
             " failed (SSL handshake error: 18:self-signed certificate:depth=0:cert=/CN=127.0.0.1:issuer=/CN=127.0.0.1)"
             ": give --nats-tls-ca the CA certificates that signed the servers' certificates\n"},
        {{"--output=" + server.Url(), tls, "--nats-user-file=" + wrong},
         "NATS at " + server.Url() +
             " refused the credentials (Authorization Violation): check --nats-creds, --nats-token-file or "
             "--nats-user-file\n"},
        // Over TLS as far as JetStream's answer.
        {{"--output=" + server.Url(), tls, "--nats-user-file=" + right},
         "NATS at " + server.Url() + " has no stream for the subjects ftrace." + HostToken() +
             ".>: give --nats-stream=NAME to create one, or create one that takes them\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderr_text);
        AgentProcess agent(c.options);
        EXPECT_EQ(agent.Wait(std::chrono::seconds(30)), 2);
        EXPECT_EQ(agent.Stderr(), c.stderr_text);
        EXPECT_EQ(agent.Stdout(), "");
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
