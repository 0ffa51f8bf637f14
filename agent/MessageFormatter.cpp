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
    const auto numbers = message.numbers();
    const auto strings = message.strings();
    const EventFields* fields = m_types.Fields(message.name());
    const uint64_t timestamp = message.get_number("timestamp");
    char head[64];
    std::snprintf(head, sizeof head, "%" PRIu64 ".%06" PRIu64 " ", timestamp / 1000000000,
                  timestamp % 1000000000 / 1000);
    out += head;
    const FieldType common_pid{"common_pid", 4, true};  // an int in every event
    AppendNumber(out, message.get_number("common_pid"), &common_pid);
    out += ' ';
    AppendTextString(out, message.name());
    const auto append_field = [&](const std::string& key, const FieldType* type) {
        if (IsCommon(key) || key == "timestamp") return;
        out += ' ';
        AppendTextString(out, key);
        out += '=';
        if (const auto number = numbers.find(key); number != numbers.end()) {
            AppendNumber(out, number->second, type);
        } else if (const auto text = strings.find(key); text != strings.end()) {
            AppendTextString(out, text->second);
        }
    };
    if (fields != nullptr) {
        for (const auto& field : fields->in_order) append_field(field.name, &field);
    } else {
        for (const auto& entry : numbers) append_field(entry.first, nullptr);
        for (const auto& entry : strings) append_field(entry.first, nullptr);
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
    const EventFields* fields = m_types.Fields(message.name());
    // Keys and fields both in byte order: one walk finds each key's type.
    auto field = fields != nullptr ? fields->by_name.begin() : std::vector<FieldType>::const_iterator();
    const auto fields_end = fields != nullptr ? fields->by_name.end() : field;
    out += "{\"name\":";
    AppendJsonString(out, message.name());
    out += ",\"numbers\":{";
    bool first = true;
    for (const auto& [key, value] : message.numbers()) {
        if (!first) out += ',';
        first = false;
        AppendJsonString(out, key);
        out += ':';
        while (field != fields_end && field->name < key) ++field;
        AppendNumber(out, value, field != fields_end && field->name == key ? &*field : nullptr);
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
