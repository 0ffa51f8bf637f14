#pragma once
// User input echoed in an error line (an event name, a path) may hold line
// feeds or terminal escapes: it is shown with every control byte spelt out,
// so that the line stays one line and the terminal shows what was typed.

#include <string>

namespace Agent {

class PrintableText {
public:
    // `text` with \n, \r, \t and every other byte below 0x20, and 0x7f, as
    // C-style escapes (\x1b). Other bytes, UTF-8 included, are kept.
    static std::string Escape(const std::string& text);
};

}  // namespace Agent
