#include "TracefsProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

const std::string TracefsProbe::kTracing = "/sys/kernel/tracing";

std::string TracefsProbe::InstanceDir(const std::string& instance) { return kTracing + "/instances/" + instance; }

std::set<std::string> TracefsProbe::Instances() {
    std::set<std::string> names;
    if (DIR* dir = opendir((kTracing + "/instances").c_str())) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        }
        closedir(dir);
    }
    return names;
}

bool TracefsProbe::InstanceExists(const std::string& instance) {
    struct stat st {};
    return stat(InstanceDir(instance).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string TracefsProbe::Read(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool TracefsProbe::Write(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) return false;
    const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return done;
}

std::string TracefsProbe::EnableState(const std::string& instance, const std::string& system,
                                      const std::string& event) {
    return Read(InstanceDir(instance) + "/events/" + system + "/" + event + "/enable").substr(0, 1);
}

bool TracefsProbe::WaitForEnable(const std::string& instance, const std::string& system, const std::string& event,
                                 const std::string& state, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (EnableState(instance, system, event) != state) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

uint64_t TracefsProbe::Lost(const std::string& instance) {
    uint64_t lost = 0;
    const std::string per_cpu = InstanceDir(instance) + "/per_cpu";
    DIR* dir = opendir(per_cpu.c_str());
    if (dir == nullptr) return 0;
    while (const dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, "cpu", 3) != 0) continue;
        std::istringstream stats(Read(per_cpu + "/" + entry->d_name + "/stats"));
        for (std::string line; std::getline(stats, line);) {
            for (const char* label : {"overrun:", "commit overrun:", "dropped events:"}) {
                if (line.rfind(label, 0) == 0) lost += std::strtoull(line.c_str() + std::strlen(label), nullptr, 10);
            }
        }
    }
    closedir(dir);
    return lost;
}

bool TracefsProbe::RemoveInstance(const std::string& instance) {
    if (!InstanceExists(instance)) return true;
    // As SECURITY.md tells an operator: events off first, so that nothing
    // keeps tracing should the removal fail (it does while a pipe is open).
    Write(InstanceDir(instance) + "/events/enable", "0");
    rmdir(InstanceDir(instance).c_str());
    return !InstanceExists(instance);
}
