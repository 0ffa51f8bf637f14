#pragma once
// --format=json: one JSON object per line (see MessageFormatter).

#include "FdOutput.h"
#include "MessageFormatter.h"

namespace Agent {

class JsonOutput : public FdOutput {
public:
    JsonOutput(int fd, const EventFieldTypes& types) : FdOutput(fd), m_formatter(types) {}

protected:
    void Append(std::string& out, const Engine::FtraceMessage& message) override;

private:
    MessageFormatter m_formatter;
};

}  // namespace Agent
