#pragma once

namespace Framework {

class AbstractEventCallback {
public:
    virtual int invoke(int fd, unsigned int events, void* context) const = 0;
    virtual ~AbstractEventCallback() {}
};

}  // namespace Framework
