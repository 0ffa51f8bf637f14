// libFuzzer target for the CPU-list grammar: no crash or sanitizer report,
// and for every accepted list: written back as "a,b,c" it parses to the same
// CPUs, blanks around it change nothing, and "list,list" doubles the output.

#include <iterator>

#include "CPUTopology.h"
#include "FuzzInput.h"

namespace {

// 0-2147483647 is a valid list: stop collecting long before that.
struct TooMany {};
struct BoundedCPUs : std::vector<int> {
    void push_back(int cpu) {
        if (size() >= (1u << 16)) throw TooMany{};
        std::vector<int>::push_back(cpu);
    }
};

// 1 accepted, 0 refused, -1 too many CPUs to check.
int Parse(const std::string& text, std::vector<int>& cpus) {
    BoundedCPUs bounded;
    try {
        const bool accepted = Engine::CPUTopology::ParseCPUs(text.begin(), text.end(), std::back_inserter(bounded));
        cpus = bounded;
        return accepted ? 1 : 0;
    } catch (const TooMany&) {
        return -1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<int> cpus, again;
    if (Parse(text, cpus) != 1) return 0;
    if (!cpus.empty()) {
        std::string canonical = std::to_string(cpus[0]);
        for (size_t i = 1; i < cpus.size(); ++i) canonical += "," + std::to_string(cpus[i]);
        FuzzCheck(Parse(canonical, again) == 1 && again == cpus, "written back: " + canonical);
    }
    FuzzCheck(Parse(" \t" + text + "\n ", again) == 1 && again == cpus, "blanks around it");
    const int joined = Parse(text + "," + text, again);
    std::vector<int> twice = cpus;
    twice.insert(twice.end(), cpus.begin(), cpus.end());
    FuzzCheck(joined == -1 || (joined == 1 && again == twice), "list,list");
    return 0;
}
