#include "FuzzTracingDir.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "FuzzInput.h"
#include "tracefs_shim.h"

namespace fs = std::filesystem;

FuzzTracingDir::FuzzTracingDir() {
    // Memory-backed: every input makes and removes a few dozen files.
    std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm/ftrace_fuzz_XXXXXX" : "/tmp/ftrace_fuzz_XXXXXX";
    FuzzCheck(mkdtemp(pattern.data()) != nullptr, "mkdtemp " + pattern);
    m_root = pattern;
    fs::create_directories(m_root + "/instances");
    for (const auto& entry : fs::recursive_directory_iterator(FTRACE_FIXTURES_ROOT "/events")) {
        if (entry.path().filename() == "format")
            m_fixtures.emplace_back(entry.path().parent_path().parent_path().filename(), entry.path().parent_path().filename());
    }
    std::sort(m_fixtures.begin(), m_fixtures.end());
    FuzzCheck(!m_fixtures.empty(), "finding fixtures under " FTRACE_FIXTURES_ROOT);
    FuzzCheck(ftrace_shim_set_tracing_dir(m_root.c_str()) == 0, "ftrace_shim_set_tracing_dir");
}

FuzzTracingDir::~FuzzTracingDir() {
    ftrace_shim_set_tracing_dir(nullptr);
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

void FuzzTracingDir::Populate(const std::string& instance) const {
    const fs::path dir = InstanceDir(instance);
    FuzzCheck(fs::is_directory(dir), "making " + dir.string());
    for (const auto& [system, event] : m_fixtures) {
        const fs::path to = dir / "events" / system / event;
        fs::create_directories(to);
        fs::copy_file(fs::path(FTRACE_FIXTURES_ROOT) / "events" / system / event / "format", to / "format",
                      fs::copy_options::overwrite_existing);
        FuzzCheck(static_cast<bool>(std::ofstream(to / "enable")), "creating " + (to / "enable").string());
    }
    for (const char* file : {"set_event", "set_event_pid"})
        FuzzCheck(static_cast<bool>(std::ofstream(dir / file)), std::string("creating ") + file);
}

void FuzzTracingDir::Empty(const std::string& instance) const {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(InstanceDir(instance), ignored)) fs::remove_all(entry.path(), ignored);
}
