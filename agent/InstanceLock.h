#pragma once
// Keeps two agents off one tracing instance: they would read each other's
// records out of the shared ring buffers, and the first to stop would switch
// the events off (or remove the instance) under the other. An flock on a file
// in /run, held for the life of the process; the holder's pid is written
// into it so that the refusal can name it.

#include <string>

namespace Agent {

class InstanceLock {
public:
    explicit InstanceLock(const std::string& instance_name);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // False when another process holds it; `holder` is then its pid as text
    // (empty if unknown), or `error` says why the lock file could not be used.
    bool TryAcquire(std::string* holder, std::string* error);
    // Writes the current pid again (after --daemon forked).
    void Refresh();
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    int m_fd = -1;
};

}  // namespace Agent
