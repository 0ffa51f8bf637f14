#include "JsonOutput.h"

namespace Agent {

void JsonOutput::Append(std::string& out, const Engine::FtraceMessage& message) {
    m_formatter.AppendJson(out, message);
    out += '\n';
}

}  // namespace Agent
