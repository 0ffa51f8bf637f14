#include "InstanceLossReader.h"

#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace Agent {
namespace {

uint64_t ValueAfter(const std::string& line, const char* label) {
    const size_t n = std::strlen(label);
    if (line.compare(0, n, label) != 0) return 0;
    return std::strtoull(line.c_str() + n, nullptr, 10);
}

}  // namespace

void InstanceLossReader::AddStatsText(const std::string& text, KernelLoss& loss) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        // "commit overrun:" is a different counter; match from the line start.
        loss.overrun += ValueAfter(line, "overrun:");
        loss.dropped_events += ValueAfter(line, "dropped events:");
        loss.unread += ValueAfter(line, "entries:");
    }
}

KernelLoss InstanceLossReader::Read(const std::string& instance_dir) {
    KernelLoss loss;
    const std::string per_cpu = instance_dir + "/per_cpu";
    DIR* dir = opendir(per_cpu.c_str());
    if (dir == nullptr) return loss;
    bool any = false;
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, "cpu", 3) != 0) continue;
        std::ifstream in(per_cpu + "/" + entry->d_name + "/stats");
        if (!in) continue;
        std::ostringstream text;
        text << in.rdbuf();
        AddStatsText(text.str(), loss);
        any = true;
    }
    closedir(dir);
    loss.known = any;
    return loss;
}

}  // namespace Agent
