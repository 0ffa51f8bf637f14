#pragma once
// Base of the line outputs: collects formatted lines and writes them to a
// descriptor (standard output) in large pieces.

#include <string>

#include "Output.h"

namespace Agent {

class FdOutput : public Output {
public:
    explicit FdOutput(int fd) : m_fd(fd) {}

    void Write(const Engine::FtraceMessage& message) override;
    bool Flush() override;

protected:
    virtual void Append(std::string& out, const Engine::FtraceMessage& message) = 0;

private:
    int m_fd;
    bool m_broken = false;
    std::string m_pending;  // formatted lines not yet written
};

}  // namespace Agent
