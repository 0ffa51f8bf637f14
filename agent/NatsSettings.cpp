#include "NatsSettings.h"

#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>

#include <climits>
#include <stdexcept>

#include "AgentOptions.h"

namespace Agent {
namespace {

bool IsSubjectToken(const std::string& text) {
    if (text.empty()) return false;
    for (const char c : text) {
        if (c <= ' ' || c == '*' || c == '>' || c == 0x7f) return false;
    }
    return text.front() != '.' && text.back() != '.' && text.find("..") == std::string::npos;
}

}  // namespace

std::vector<std::string> NatsSettings::ParseServers(const std::string& text) {
    std::vector<std::string> servers;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        const auto comma = text.find(',', start);
        const std::string url = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const std::string bad =
            "--output: '" + url + "' is not nats://HOST:PORT; give --output=nats://HOST:PORT[,nats://HOST:PORT...]";
        if (url.compare(0, 7, kScheme) != 0) throw std::invalid_argument(bad);
        const std::string address = url.substr(7);
        if (address.find('@') != std::string::npos) {
            throw std::invalid_argument("--output: '" + url +
                                        "' holds credentials, which other users can read on the "
                                        "command line; put them in a file for --nats-creds, --nats-token-file or "
                                        "--nats-user-file");
        }
        const auto colon = address.rfind(':');
        const std::string host = colon == std::string::npos ? "" : address.substr(0, colon);
        const std::string port = colon == std::string::npos ? "" : address.substr(colon + 1);
        const bool host_ok = !host.empty() && host.find_first_of("/?# ") == std::string::npos &&
                             (host.find(':') == std::string::npos || (host.front() == '[' && host.back() == ']'));
        bool port_ok = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
        if (port_ok) port_ok = std::stoi(port) >= 1 && std::stoi(port) <= 65535;
        if (!host_ok || !port_ok) throw std::invalid_argument(bad);
        servers.push_back(url);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return servers;
}

void NatsSettings::DefineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    options.addOption(Option("nats-subject-prefix", "",
                             "first part of the NATS subjects PREFIX.<host>.<system>.<event> (default ftrace)")
                          .argument("PREFIX"));
    options.addOption(Option("nats-stream", "",
                             "create the JetStream stream NAME over PREFIX.> if it does not exist, and publish to it "
                             "(default: publish to an existing stream that takes the subjects)")
                          .argument("NAME"));
    options.addOption(
        Option("nats-replicas", "", "replicas of a stream created by --nats-stream (1-5, default 1)").argument("N"));
    options.addOption(Option("nats-creds", "", "NATS credentials file (JWT and NKey seed)").argument("FILE"));
    options.addOption(Option("nats-token-file", "", "file holding the NATS token").argument("FILE"));
    options.addOption(Option("nats-user-file", "", "file holding user:password for NATS").argument("FILE"));
    options.addOption(
        Option("nats-tls-ca", "", "connect with TLS, trusting the CA certificates in FILE").argument("FILE"));
    options.addOption(Option("nats-buffer", "",
                             "messages kept while the servers are away or slow: N messages or N MiB (\"64MiB\", the "
                             "default); beyond it the oldest are dropped and counted")
                          .argument("SIZE"));
}

bool NatsSettings::HandleOption(const std::string& name, const std::string& value) {
    if (name == "nats-subject-prefix") {
        if (!IsSubjectToken(value)) {
            throw std::invalid_argument("--nats-subject-prefix: '" + value +
                                        "' is not a NATS subject without wildcards or blanks");
        }
        subject_prefix = value;
    } else if (name == "nats-stream") {
        if (value.empty() || value.find_first_of(".*> \t/\\") != std::string::npos) {
            throw std::invalid_argument("--nats-stream: '" + value +
                                        "' is not a stream name (no . * > / \\ or blanks)");
        }
        stream = value;
    } else if (name == "nats-replicas") {
        replicas = static_cast<int>(AgentOptions::ParseInteger(name, value, 1, 5));
    } else if (name == "nats-creds") {
        creds_file = value;
    } else if (name == "nats-token-file") {
        token_file = value;
    } else if (name == "nats-user-file") {
        user_file = value;
    } else if (name == "nats-tls-ca") {
        tls_ca_file = value;
    } else if (name == "nats-buffer") {
        const bool mib = value.size() > 3 && value.compare(value.size() - 3, 3, "MiB") == 0;
        const long long n = AgentOptions::ParseInteger(name, mib ? value.substr(0, value.size() - 3) : value, 1,
                                                       mib ? 1 << 20 : LLONG_MAX);
        buffer_messages = mib ? 0 : static_cast<uint64_t>(n);
        buffer_bytes = mib ? static_cast<uint64_t>(n) << 20 : 0;
    } else {
        return false;
    }
    return true;
}

}  // namespace Agent
