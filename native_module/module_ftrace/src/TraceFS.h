#pragma once
// Owner of one tracefs instance: creates it, or adopts one that already
// exists, and removes it on destruction only if it created it.

#include <memory>
#include <string>

struct tracefs_instance;

class TraceFS {
public:
    explicit TraceFS(const std::string& name);
    ~TraceFS();
    TraceFS(const TraceFS&) = delete;
    TraceFS& operator=(const TraceFS&) = delete;

    std::string dir() const;
    std::string file(const std::string& name) const;
    bool IsValid() const { return valid; }
    bool IsCreated() const { return created; }

private:
    std::unique_ptr<tracefs_instance, void (*)(tracefs_instance*)> instance;
    bool created = false;
    bool valid = false;
};
