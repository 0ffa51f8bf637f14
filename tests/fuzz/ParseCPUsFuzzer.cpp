// libFuzzer target for the CPU-list grammar: no crash or sanitizer report,
// and for every accepted list: written back as "a,b,c" it parses to the same
// CPUs, blanks around it change nothing, and "list,list" doubles the output.

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "CPUTopology.h"

namespace {

// 0-2147483647 is a valid list: stop collecting long before that.
struct TooMany {};
struct BoundedInserter {
    using iterator_category = std::output_iterator_tag;
    using value_type = void;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = void;
    std::vector<int>* out;
    BoundedInserter& operator=(int cpu) {
        if (out->size() >= (1u << 16)) throw TooMany{};
        out->push_back(cpu);
        return *this;
    }
    BoundedInserter& operator*() { return *this; }
    BoundedInserter& operator++() { return *this; }
    BoundedInserter operator++(int) { return *this; }
};

// 1 accepted, 0 refused, -1 too many CPUs to check.
int Parse(const std::string& text, std::vector<int>& cpus) {
    cpus.clear();
    try {
        return Engine::CPUTopology::ParseCPUs(text.begin(), text.end(), BoundedInserter{&cpus}) ? 1 : 0;
    } catch (const TooMany&) {
        return -1;
    }
}

void Check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<int> cpus, again;
    if (Parse(text, cpus) != 1) return 0;

    if (!cpus.empty()) {
        std::string canonical = std::to_string(cpus[0]);
        for (size_t i = 1; i < cpus.size(); ++i) canonical += "," + std::to_string(cpus[i]);
        Check(Parse(canonical, again) == 1 && again == cpus);
    }
    Check(Parse(" \t" + text + "\n ", again) == 1 && again == cpus);
    const int joined = Parse(text + "," + text, again);
    if (joined != -1) {
        std::vector<int> twice = cpus;
        twice.insert(twice.end(), cpus.begin(), cpus.end());
        Check(joined == 1 && again == twice);
    }
    return 0;
}
