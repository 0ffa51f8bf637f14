#pragma once
#include <memory>

namespace Framework {

// A task's wake-up eventfd as seen by producers that signal it later than the
// moment they enqueued: a duplicate descriptor of its own, so that a delayed
// signal reaches a live eventfd even if the task has been destroyed meanwhile
// (nobody waits on it then, and the write is harmless).
class WakeupChannel {
public:
    // Duplicates `eventfd`; Valid() is false when that fails.
    explicit WakeupChannel(int eventfd);
    ~WakeupChannel();
    WakeupChannel(const WakeupChannel&) = delete;
    WakeupChannel& operator=(const WakeupChannel&) = delete;

    bool Valid() const { return m_fd >= 0; }
    void Signal() const;

private:
    int m_fd = -1;
};

}  // namespace Framework
