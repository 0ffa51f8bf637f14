#pragma once
// Typed message dispatch: a task that wants messages of type T implements
// AbstructMessage<T>::Receiver; the message's MessageHandle cross-casts the
// consuming task to that interface and hands itself over.

#include "Framework/Message.h"
#include "Framework/Task.h"

namespace Engine {

template <typename T>
class AbstructMessage : public Framework::Message {
public:
    class Receiver {
    public:
        virtual int Receive(T* message) = 0;
        virtual ~Receiver() = default;
    };

    ~AbstructMessage() override = default;

    // -1 when `context` is null or the task does not implement Receiver.
    int MessageHandle(void* context) override {
        if (context == nullptr) return -1;
        auto* receiver = dynamic_cast<Receiver*>(static_cast<Framework::Task*>(context));
        if (receiver == nullptr) return -1;
        return receiver->Receive(static_cast<T*>(this));
    }
};

}  // namespace Engine
