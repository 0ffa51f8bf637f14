#pragma once
// The --output=nats://... and --nats-* options of the agent.

#include <cstdint>
#include <string>
#include <vector>

namespace Poco {
namespace Util {
class OptionSet;
}
}  // namespace Poco

namespace Agent {

struct NatsSettings {
    static constexpr const char* kScheme = "nats://";

    // "nats://HOST:PORT[,nats://HOST:PORT...]"; throws std::invalid_argument
    // with a line saying what is wrong. Credentials in the URL are refused:
    // command lines are visible to every user of the host.
    static std::vector<std::string> ParseServers(const std::string& text);
    static void DefineOptions(Poco::Util::OptionSet& options);
    // False when `name` is not one of the --nats-* options.
    bool HandleOption(const std::string& name, const std::string& value);

    std::vector<std::string> servers;
    std::string subject_prefix = "ftrace";
    std::string stream;  // empty: publish to the stream that takes the subjects
    int replicas = 1;
    std::string creds_file;
    std::string token_file;
    std::string user_file;  // one line user:password
    std::string tls_ca_file;
    uint64_t buffer_messages = 0;        // 0: bounded by bytes only
    uint64_t buffer_bytes = 64ull << 20;  // 0: bounded by messages only
};

}  // namespace Agent
