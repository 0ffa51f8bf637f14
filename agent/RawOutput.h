#pragma once
// --format=raw: the message's own text form, padding and NULs included.

#include "FdOutput.h"
#include "MessageFormatter.h"

namespace Agent {

class RawOutput : public FdOutput {
public:
    RawOutput(int fd, const EventFieldTypes& types) : FdOutput(fd), m_formatter(types) {}

protected:
    void Append(std::string& out, const Engine::FtraceMessage& message) override;

private:
    MessageFormatter m_formatter;
};

}  // namespace Agent
