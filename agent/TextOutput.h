#pragma once
// --format=text: one readable line per message (see MessageFormatter).

#include "FdOutput.h"
#include "MessageFormatter.h"

namespace Agent {

class TextOutput : public FdOutput {
public:
    TextOutput(int fd, const EventFieldTypes& types) : FdOutput(fd), m_formatter(types) {}

protected:
    void Append(std::string& out, const Engine::FtraceMessage& message) override;

private:
    MessageFormatter m_formatter;
};

}  // namespace Agent
