#include "PrintableText.h"

namespace Agent {

std::string PrintableText::Escape(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 0xf];
        }
    }
    return out;
}

}  // namespace Agent
