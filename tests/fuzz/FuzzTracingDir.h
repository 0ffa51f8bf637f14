#pragma once
// A private tracing directory for the fuzz targets. libtracefs is pointed at
// it while the object lives, so the module makes its instance in there; each
// instance is then filled with the committed event formats and with plain
// files standing in for the kernel's enable and set_event control files.

#include <string>
#include <utility>
#include <vector>

class FuzzTracingDir {
public:
    FuzzTracingDir();
    ~FuzzTracingDir();
    FuzzTracingDir(const FuzzTracingDir&) = delete;
    FuzzTracingDir& operator=(const FuzzTracingDir&) = delete;

    std::string InstanceDir(const std::string& instance) const { return m_root + "/instances/" + instance; }
    // Into the existing instance directory: events/<system>/<event>/ with the
    // fixture's format and an empty enable file, empty set_event and set_event_pid.
    void Populate(const std::string& instance) const;
    // Empties the instance directory: unlike the kernel's, a plain directory
    // cannot be removed with files in it.
    void Empty(const std::string& instance) const;
    // (system, event) of every committed format, sorted.
    const std::vector<std::pair<std::string, std::string>>& Fixtures() const { return m_fixtures; }

private:
    std::string m_root;
    std::vector<std::pair<std::string, std::string>> m_fixtures;
};
