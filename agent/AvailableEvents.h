#pragma once
// The events the running kernel offers, from the tracing directory's
// available_events file ("system:event" per line). Names are checked here
// before anything is subscribed, so a made-up or path-like name never reaches
// the module.

#include <set>
#include <string>

namespace Agent {

class AvailableEvents {
public:
    // Reads <tracing_dir>/available_events. False (with the reason) when it
    // cannot be read, which means no privilege or no tracefs.
    bool Load(const std::string& tracing_dir, std::string* error);
    bool Contains(const std::string& full_name) const { return m_names.count(full_name) != 0; }
    size_t Size() const { return m_names.size(); }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    std::set<std::string> m_names;
};

}  // namespace Agent
