#include "MessageFormatter.h"

#include <sstream>

#include "FtraceMessage.h"

namespace Agent {

void MessageFormatter::AppendText(std::string& out, const Engine::FtraceMessage& message) {
    std::ostringstream line;
    line << message;
    out += line.str();
    out += '\n';
}

void MessageFormatter::AppendJsonString(std::string& out, const std::string& bytes) {
    static const char kHex[] = "0123456789abcdef";
    out += '"';
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            out += c;
        } else {
            out += "\\u00";
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0f];
        }
    }
    out += '"';
}

void MessageFormatter::AppendJson(std::string& out, const Engine::FtraceMessage& message) {
    out += "{\"name\":";
    AppendJsonString(out, message.name());
    out += ",\"numbers\":{";
    bool first = true;
    for (const auto& [key, value] : message.numbers()) {
        if (!first) out += ',';
        first = false;
        AppendJsonString(out, key);
        out += ':';
        out += std::to_string(value);
    }
    out += "},\"strings\":{";
    first = true;
    for (const auto& [key, value] : message.strings()) {
        if (!first) out += ',';
        first = false;
        AppendJsonString(out, key);
        out += ':';
        AppendJsonString(out, value);
    }
    out += "}}\n";
}

}  // namespace Agent
