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

bool IsCommon(const std::string& key) { return key.compare(0, 7, "common_") == 0; }

// `type` null: a field of unknown type, printed unsigned.
void AppendNumber(std::string& out, uint64_t value, const FieldType* type) {
    if (type != nullptr && type->is_signed) {
        out += std::to_string(EventFieldTypes::Signed(value, type->size));
    } else {
        out += std::to_string(value);
    }
}

}  // namespace

void MessageFormatter::AppendText(std::string& out, const Engine::FtraceMessage& message) const {
    const EventFields* fields = m_types.Fields(message.name());
    const uint64_t timestamp = message.get_number("timestamp");
    char head[64];
    std::snprintf(head, sizeof head, "%" PRIu64 ".%06" PRIu64 " ", timestamp / 1000000000,
                  timestamp % 1000000000 / 1000);
    out += head;
    const FieldType common_pid{"common_pid", 4, true, false};  // an int in every event
    AppendNumber(out, message.get_number("common_pid"), &common_pid);
    out += ' ';
    AppendTextString(out, message.name());
    const auto append_field = [&](const std::string& key, const FieldType* type, const std::string* text,
                                  uint64_t number) {
        if (IsCommon(key) || key == "timestamp") return;
        out += ' ';
        AppendTextString(out, key);
        out += '=';
        if (text != nullptr) {
            AppendTextString(out, *text);
        } else {
            AppendNumber(out, number, type);
        }
    };
    if (fields != nullptr) {
        for (const auto& field : fields->in_order) {
            if (field.is_array) {
                append_field(field.name, &field, &message.get_string(field.name), 0);
            } else {
                append_field(field.name, &field, nullptr, message.get_number(field.name));
            }
        }
        out += '\n';
        return;
    }
    for (const auto& [key, value] : message.numbers()) append_field(key, nullptr, nullptr, value);
    for (const auto& [key, value] : message.strings()) append_field(key, nullptr, &value, 0);
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
    size_t plain = 0;  // start of the bytes that need no escape, appended at once
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\') continue;
        out.append(bytes, plain, i - plain);
        plain = i + 1;
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += static_cast<char>(byte);
        } else {
            out += "\\u00";
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0f];
        }
    }
    out.append(bytes, plain, std::string::npos);
    out += '"';
}

void MessageFormatter::AppendJson(std::string& out, const Engine::FtraceMessage& message) const {
    out += "{\"name\":";
    AppendJsonString(out, message.name());
    out += ",\"numbers\":{";
    const auto append_entry = [&out](bool first, const std::string& key) {
        if (!first) out += ',';
        AppendJsonString(out, key);
        out += ':';
    };
    // With the event's format the keys are known: looked up, not copied out of the message.
    if (const EventFields* fields = m_types.Fields(message.name())) {
        for (const auto& field : fields->numbers) {
            append_entry(&field == &fields->numbers.front(), field.name);
            AppendNumber(out, message.get_number(field.name), &field);
        }
        out += "},\"strings\":{";
        for (const auto& field : fields->strings) {
            append_entry(&field == &fields->strings.front(), field.name);
            AppendJsonString(out, message.get_string(field.name));
        }
        out += "}}";
        return;
    }
    bool first = true;
    for (const auto& [key, value] : message.numbers()) {
        append_entry(first, key);
        first = false;
        out += std::to_string(value);
    }
    out += "},\"strings\":{";
    first = true;
    for (const auto& [key, value] : message.strings()) {
        append_entry(first, key);
        first = false;
        AppendJsonString(out, value);
    }
    out += "}}";
}

}  // namespace Agent
