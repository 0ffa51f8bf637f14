#include "TextOutput.h"

namespace Agent {

void TextOutput::Append(std::string& out, const Engine::FtraceMessage& message) {
    m_formatter.AppendText(out, message);
}

}  // namespace Agent
