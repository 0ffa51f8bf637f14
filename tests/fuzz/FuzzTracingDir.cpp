#include "FuzzTracingDir.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tracefs_shim.h"

namespace fs = std::filesystem;

namespace {

void Fail(const std::string& what) {
    std::fprintf(stderr, "fuzz tracing dir: %s\n", what.c_str());
    std::abort();
}

void Touch(const fs::path& path) {
    std::ofstream out(path, std::ios::trunc);
    if (!out) Fail("cannot create " + path.string());
}

}  // namespace

FuzzTracingDir::FuzzTracingDir() {
    // Memory-backed when possible: every input makes and removes a few dozen files.
    std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm/ftrace_fuzz_XXXXXX" : "/tmp/ftrace_fuzz_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) Fail("mkdtemp " + pattern);
    m_root = pattern;
    fs::create_directories(m_root + "/instances");
    for (const auto& entry : fs::recursive_directory_iterator(std::string(FTRACE_FIXTURES_ROOT) + "/events")) {
        if (entry.path().filename() != "format") continue;
        m_fixtures.emplace_back(entry.path().parent_path().parent_path().filename(),
                                entry.path().parent_path().filename());
    }
    std::sort(m_fixtures.begin(), m_fixtures.end());
    if (m_fixtures.empty()) Fail("no fixtures under " FTRACE_FIXTURES_ROOT);
    if (ftrace_shim_set_tracing_dir(m_root.c_str()) != 0) Fail("ftrace_shim_set_tracing_dir");
}

FuzzTracingDir::~FuzzTracingDir() {
    ftrace_shim_set_tracing_dir(nullptr);
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

std::string FuzzTracingDir::InstanceDir(const std::string& instance) const {
    return m_root + "/instances/" + instance;
}

void FuzzTracingDir::Populate(const std::string& instance) const {
    const fs::path dir = InstanceDir(instance);
    if (!fs::is_directory(dir)) Fail(dir.string() + " was not made");
    for (const auto& [system, event] : m_fixtures) {
        const fs::path to = dir / "events" / system / event;
        fs::create_directories(to);
        fs::copy_file(fs::path(FTRACE_FIXTURES_ROOT) / "events" / system / event / "format", to / "format",
                      fs::copy_options::overwrite_existing);
        Touch(to / "enable");
    }
    Touch(dir / "set_event");
    Touch(dir / "set_event_pid");
}

void FuzzTracingDir::Empty(const std::string& instance) const {
    const fs::path dir = InstanceDir(instance);
    std::error_code ignored;
    fs::remove_all(dir / "events", ignored);
    fs::remove(dir / "set_event", ignored);
    fs::remove(dir / "set_event_pid", ignored);
}
