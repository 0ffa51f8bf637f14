#pragma once

namespace Framework {

// Base of every message that travels between tasks as std::shared_ptr<Message>.
// A message is immutable once sent and may be shared by several receivers.
class Message {
public:
    Message() = default;
    virtual ~Message() = default;
    // Called on the consuming task's thread with that task (a Framework::Task*).
    virtual int MessageHandle(void* context) = 0;
};

}  // namespace Framework
