// libFuzzer target for the CPU-list grammar. Besides "no crash, no sanitizer
// report", it checks properties any correct parser of the grammar has:
//  - an accepted list, written back as "a,b,c", parses to the same CPUs;
//  - blanks around an accepted list change nothing;
//  - two accepted lists joined by "," give both outputs one after the other.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "CPUTopology.h"

namespace {

// Ranges such as 0-2147483647 are valid; stop collecting long before that.
constexpr size_t kMaxCPUs = 1 << 16;
struct TooMany {};

class BoundedInserter {
public:
    using iterator_category = std::output_iterator_tag;
    using value_type = void;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = void;

    explicit BoundedInserter(std::vector<int>& out) : out(&out) {}
    BoundedInserter& operator=(int cpu) {
        if (out->size() >= kMaxCPUs) throw TooMany{};
        out->push_back(cpu);
        return *this;
    }
    BoundedInserter& operator*() { return *this; }
    BoundedInserter& operator++() { return *this; }
    BoundedInserter operator++(int) { return *this; }

private:
    std::vector<int>* out;
};

// Parses `text`; false when refused or too long to check.
bool Parse(const std::string& text, std::vector<int>& cpus, bool& accepted) {
    cpus.clear();
    try {
        accepted = Engine::CPUTopology::ParseCPUs(text.begin(), text.end(), BoundedInserter(cpus));
        return true;
    } catch (const TooMany&) {
        return false;
    }
}

void Check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<int> cpus;
    bool accepted = false;
    if (!Parse(text, cpus, accepted) || !accepted) return 0;

    bool again = false;
    std::vector<int> reparsed;
    if (!cpus.empty()) {
        std::string canonical;
        for (int cpu : cpus) canonical += (canonical.empty() ? "" : ",") + std::to_string(cpu);
        Check(Parse(canonical, reparsed, again) && again && reparsed == cpus);
    }

    Check(Parse(" \t" + text + "\n ", reparsed, again) && again && reparsed == cpus);

    if (Parse(text + "," + text, reparsed, again)) {
        std::vector<int> twice = cpus;
        twice.insert(twice.end(), cpus.begin(), cpus.end());
        Check(again && reparsed == twice);
    }
    return 0;
}
