#pragma once
#include <memory>

#include "Framework/Message.h"
#include "SDK/LocklessQueue.h"

namespace Framework {

using MessageQueue = SDK::LocklessQueue<std::shared_ptr<Message>>;

// A task's inbound queue: any thread enqueues, only the owning task dequeues.
class MessageConsumer {
public:
    // `size` slots (rounded up to a power of two), several producers, one consumer,
    // and a consumed message's reference is dropped at once.
    explicit MessageConsumer(unsigned int size) : m_queue(size, 0, false, true, true) {}
    virtual ~MessageConsumer() = default;

    MessageQueue& Queue() { return m_queue; }
    const MessageQueue& Queue() const { return m_queue; }

private:
    MessageQueue m_queue;
};

}  // namespace Framework
