#include "RawOutput.h"

namespace Agent {

void RawOutput::Append(std::string& out, const Engine::FtraceMessage& message) {
    MessageFormatter::AppendRaw(out, message);
}

}  // namespace Agent
