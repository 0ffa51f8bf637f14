#pragma once
#include "Framework/AbstractEventCallback.h"

namespace Framework {

template <typename T>
class EventCallback : public AbstractEventCallback {
public:
    using Method = int (T::*)(int fd, unsigned int events, void* context);

    EventCallback(T* target, Method method) : m_target(target), m_method(method) {}

    int invoke(int fd, unsigned int events, void* context) const override {
        return (m_target->*m_method)(fd, events, context);
    }

private:
    T* m_target;
    Method m_method;
};

}  // namespace Framework
