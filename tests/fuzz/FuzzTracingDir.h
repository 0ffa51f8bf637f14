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

    const std::string& Root() const { return m_root; }
    std::string InstanceDir(const std::string& instance) const;

    // Into the existing <root>/instances/<instance>: events/<system>/<event>/
    // with the fixture's format and an empty enable file, and empty set_event
    // and set_event_pid files.
    void Populate(const std::string& instance) const;
    // Removes what Populate made, leaving the instance directory empty.
    void Empty(const std::string& instance) const;

    // (system, event) of every committed format, sorted.
    const std::vector<std::pair<std::string, std::string>>& Fixtures() const { return m_fixtures; }

private:
    std::string m_root;
    std::vector<std::pair<std::string, std::string>> m_fixtures;
};
