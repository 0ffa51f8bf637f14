#include "PidFilter.h"

#include <Poco/Message.h>
#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "SDK/LoggerUtils.h"
#include "ftrace.h"

namespace Agent {
namespace {

constexpr const char* kEventFork = "options/event-fork";

void Warn(const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace-agent", false),
                          Poco::Message::PRIO_WARNING, text, __FILE__, line);
}

std::string ReadWord(const std::string& path) {
    std::ifstream in(path);
    std::string word;
    in >> word;
    return word;
}

// The thread ids of `pid`, the process's own first; just `pid` when /proc
// cannot list them (the process may have ended).
std::vector<int> ThreadIds(int pid) {
    std::vector<int> ids{pid};
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) return ids;
    while (const dirent* entry = readdir(dir)) {
        const int id = std::atoi(entry->d_name);
        if (id > 0 && id != pid) ids.push_back(id);
    }
    closedir(dir);
    return ids;
}

}  // namespace

void PidFilter::Apply(Ftrace& instance, const std::vector<int>& pids) {
    instance.event_filter_clean_all();
    if (pids.empty()) return;
    // On before the ids go in, so that a thread started meanwhile by one
    // already listed is added by the kernel.
    const std::string path = instance.tracing_file(kEventFork);
    const std::string before = ReadWord(path);
    if (before != "1") {
        if (instance.write_file(path, "1")) {
            m_event_fork_before = before.empty() ? "0" : before;
        } else {
            Warn("cannot switch on " + path + ": threads and children that a --pid process starts are not traced",
                 __LINE__);
        }
    }
    for (const int pid : pids) {
        for (const int id : ThreadIds(pid)) instance.event_filter_add_pid(id);
    }
}

void PidFilter::Clear(Ftrace& instance) {
    instance.event_filter_clean_all();
    if (m_event_fork_before.empty()) return;
    instance.write_file(instance.tracing_file(kEventFork), m_event_fork_before);
    m_event_fork_before.clear();
}

}  // namespace Agent
