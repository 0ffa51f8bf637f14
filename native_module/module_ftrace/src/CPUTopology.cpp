#include "CPUTopology.h"

#include <iterator>

#include "SDK/FileUtils.h"

namespace Engine {

namespace {
// sysfs CPU lists are a few bytes; the cap only guards against a wrong path.
constexpr long kMaxCPUListBytes = 10485760;
}  // namespace

std::vector<int> CPUTopology::GetOnlineCPUs() { return GetCPUs("/sys/devices/system/cpu/online"); }

std::vector<int> CPUTopology::GetCPUs(const std::string& path) {
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text, kMaxCPUListBytes) != 0) return {};
    std::vector<int> cpus;
    if (!ParseCPUs(text.begin(), text.end(), std::back_inserter(cpus))) return {};
    return cpus;
}

}  // namespace Engine
