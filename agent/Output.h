#pragma once
// Where the agent's subscriber task sends every trace message: standard
// output in one of the line formats, or a message system. One class per
// output; OutputTable names them for --format and --output.

#include <memory>
#include <ostream>
#include <string>

namespace Engine {
class FtraceMessage;
}

namespace Agent {

class Output {
public:
    virtual ~Output() = default;

    // Before the tracing instance is made: whatever the output can check
    // (servers, credentials). False with one line saying what to do.
    virtual bool Check(std::string* /*error*/) { return true; }
    // On the subscriber thread, before the first message.
    virtual void Start() {}
    // One message, on the subscriber thread. Must not wait for anybody:
    // an output that cannot keep up keeps what it can and counts the rest.
    virtual void Write(const Engine::FtraceMessage& message) = 0;
    // The same, for an output that keeps the message itself (messages are
    // immutable and shared) and does the work on a thread of its own.
    virtual void Take(const std::shared_ptr<const Engine::FtraceMessage>& message) { Write(*message); }
    // After every batch of messages. False when the output is gone for
    // good, which stops the run.
    virtual bool Flush() { return true; }
    // After the last message, on the subscriber thread.
    virtual void Finish() { Flush(); }
    // The output's own lines of the summary printed on exit.
    virtual void PrintSummary(std::ostream& /*os*/) const {}
};

}  // namespace Agent
