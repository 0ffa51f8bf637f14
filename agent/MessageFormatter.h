#pragma once
// Turns trace messages into output lines.
//
// JSON lines are {"name":..., "numbers":{...}, "strings":{...}}. Kernel strings
// are byte strings (task names keep their trailing NULs, file names need not
// be UTF-8), so every string is written byte for byte: printable ASCII as it
// is (with \" and \\), and every other byte - controls, NUL, DEL and each byte
// from 0x80 up - as \u00XX. A reader gets the original bytes back by taking
// each decoded character's code point as one byte (Python:
// value.encode("latin-1")).

#include <string>

namespace Engine {
class FtraceMessage;
}

namespace Agent {

class MessageFormatter {
public:
    // The message's own text form, then a line feed.
    static void AppendText(std::string& out, const Engine::FtraceMessage& message);
    // One JSON object, then a line feed.
    static void AppendJson(std::string& out, const Engine::FtraceMessage& message);
    // A JSON string literal (with its quotes) holding exactly `bytes`.
    static void AppendJsonString(std::string& out, const std::string& bytes);
};

}  // namespace Agent
