#include "MessageFormatter.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "FtraceMessage.h"

namespace Agent {
namespace {

const char kHex[] = "0123456789abcdef";

void AppendTextString(std::string& out, const std::string& bytes) {
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0) break;
        if (byte == '\\') {
            out += "\\\\";
        } else if (byte == '\n') {
            out += "\\n";
        } else if (byte == '\t') {
            out += "\\t";
        } else if (byte >= 0x20 && byte < 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0f];
        }
    }
}

bool IsCommon(const std::string& key) {
    return key.compare(0, 7, "common_") == 0;
}

}  // namespace

void MessageFormatter::AppendNumber(std::string& out, const std::vector<FieldType>* fields, const std::string& key,
                                    uint64_t value) const {
    if (fields != nullptr) {
        for (const auto& field : *fields) {
            if (field.name != key) continue;
            if (field.is_signed) {
                out += std::to_string(EventFieldTypes::Signed(value, field.size));
                return;
            }
            break;
        }
    }
    out += std::to_string(value);
}

void MessageFormatter::AppendText(std::string& out, const Engine::FtraceMessage& message) const {
    const auto numbers = message.numbers();
    const auto strings = message.strings();
    const auto* fields = m_types.Fields(message.name());
    const uint64_t timestamp = message.get_number("timestamp");
    char head[64];
    std::snprintf(head, sizeof head, "%" PRIu64 ".%06" PRIu64 " ", timestamp / 1000000000,
                  timestamp % 1000000000 / 1000);
    out += head;
    AppendNumber(out, fields, "common_pid", message.get_number("common_pid"));
    out += ' ';
    AppendTextString(out, message.name());
    const auto append_field = [&](const std::string& key) {
        if (IsCommon(key) || key == "timestamp") return;
        out += ' ';
        AppendTextString(out, key);
        out += '=';
        if (const auto number = numbers.find(key); number != numbers.end()) {
            AppendNumber(out, fields, key, number->second);
        } else if (const auto text = strings.find(key); text != strings.end()) {
            AppendTextString(out, text->second);
        }
    };
    if (fields != nullptr) {
        for (const auto& field : *fields) append_field(field.name);
    } else {
        for (const auto& entry : numbers) append_field(entry.first);
        for (const auto& entry : strings) append_field(entry.first);
    }
    out += '\n';
}

void MessageFormatter::AppendRaw(std::string& out, const Engine::FtraceMessage& message) {
    std::ostringstream line;
    line << message;
    out += line.str();
    out += '\n';
}

void MessageFormatter::AppendJsonString(std::string& out, const std::string& bytes) {
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

void MessageFormatter::AppendJson(std::string& out, const Engine::FtraceMessage& message) const {
    const auto* fields = m_types.Fields(message.name());
    out += "{\"name\":";
    AppendJsonString(out, message.name());
    out += ",\"numbers\":{";
    bool first = true;
    for (const auto& [key, value] : message.numbers()) {
        if (!first) out += ',';
        first = false;
        AppendJsonString(out, key);
        out += ':';
        AppendNumber(out, fields, key, value);
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
    out += "}}";
}

}  // namespace Agent
