#pragma once
// Turns trace messages into output lines.
//
// Text lines read like `perf script`: the time stamp in seconds, the common
// pid, the event, then field=value for the event's own fields in the order
// its format declares them. Strings end at their first NUL; a backslash and
// every byte that is not printable ASCII are escaped (\\, \n, \t, \xHH).
//
// JSON lines are {"name":..., "numbers":{...}, "strings":{...}}. Kernel strings
// are byte strings (task names keep their trailing NULs, file names need not
// be UTF-8), so every string is written byte for byte: printable ASCII as it
// is (with \" and \\), and every other byte - controls, NUL, DEL and each byte
// from 0x80 up - as \u00XX. A reader gets the original bytes back by taking
// each decoded character's code point as one byte (Python:
// value.encode("latin-1")).
//
// Messages carry numbers as unsigned 64 bits; a field the format declares
// signed is printed as the signed number of its size in text and JSON.

#include <string>

#include "EventFieldTypes.h"

namespace Engine {
class FtraceMessage;
}

namespace Agent {

class MessageFormatter {
public:
    explicit MessageFormatter(const EventFieldTypes& types) : m_types(types) {}

    // The readable line, then a line feed.
    void AppendText(std::string& out, const Engine::FtraceMessage& message) const;
    // The message's own text form (padding and NULs included), then a line feed.
    static void AppendRaw(std::string& out, const Engine::FtraceMessage& message);
    // One JSON object, without a line feed.
    void AppendJson(std::string& out, const Engine::FtraceMessage& message) const;
    // A JSON string literal (with its quotes) holding exactly `bytes`.
    static void AppendJsonString(std::string& out, const std::string& bytes);

private:
    const EventFieldTypes& m_types;
};

}  // namespace Agent
