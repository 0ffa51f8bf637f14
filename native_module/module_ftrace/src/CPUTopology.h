#pragma once
// Turns a kernel CPU-list file ("0-3,8-11\n") into CPU numbers.

#include <cctype>
#include <climits>
#include <string>
#include <vector>

namespace Engine {

class CPUTopology {
public:
    static std::vector<int> GetOnlineCPUs();
    // The CPUs listed in the file at `path` in file order; empty on any failure.
    static std::vector<int> GetCPUs(const std::string& path);

    // list := item { "," item }; item := number "-" number | number;
    // number := ["+"|"-"] digits, fitting a signed 32-bit integer; blanks are
    // skipped between tokens. A range A-B with A > B is well-formed and writes
    // nothing. Writes CPUs to `out` as they are parsed; true only when the
    // whole text was consumed (partial output stays written on failure).
    template <typename InputIt, typename OutputIt>
    static bool ParseCPUs(InputIt first, InputIt last, OutputIt out);

private:
    template <typename InputIt>
    static void SkipBlanks(InputIt& it, InputIt last) {
        while (it != last && IsBlank(*it)) ++it;
    }
    static bool IsBlank(char c) {
        const unsigned char u = static_cast<unsigned char>(c);
        return u < 128 && std::isspace(u);
    }
    template <typename InputIt>
    static bool ParseNumber(InputIt& it, InputIt last, int& value);
};

template <typename InputIt>
bool CPUTopology::ParseNumber(InputIt& it, InputIt last, int& value) {
    InputIt p = it;
    bool negative = false;
    if (p != last && (*p == '+' || *p == '-')) {
        negative = (*p == '-');
        ++p;
    }
    long long magnitude = 0;
    bool any = false;
    const long long limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
    while (p != last && *p >= '0' && *p <= '9') {
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > limit) return false;
        any = true;
        ++p;
    }
    if (!any) return false;
    value = static_cast<int>(negative ? -magnitude : magnitude);
    it = p;
    return true;
}

template <typename InputIt, typename OutputIt>
bool CPUTopology::ParseCPUs(InputIt first, InputIt last, OutputIt out) {
    InputIt it = first;
    SkipBlanks(it, last);
    bool expect_item = true;
    while (expect_item) {
        expect_item = false;
        int low = 0, high = 0;
        if (!ParseNumber(it, last, low)) return false;  // a list holds at least one item
        // Range form first; when it fails, the item is the single number.
        InputIt after_low = it;
        bool range = false;
        SkipBlanks(it, last);
        if (it != last && *it == '-') {
            ++it;
            SkipBlanks(it, last);
            range = ParseNumber(it, last, high);
        }
        if (range) {
            // A wide counter, so a range ending at INT_MAX stops instead of wrapping.
            for (long long cpu = low; cpu <= high; ++cpu) *out++ = static_cast<int>(cpu);
        } else {
            it = after_low;
            *out++ = low;
        }
        InputIt after_item = it;
        SkipBlanks(it, last);
        if (it != last && *it == ',') {
            InputIt comma = it;
            ++it;
            SkipBlanks(it, last);
            InputIt probe = it;
            int ignored;
            if (ParseNumber(probe, last, ignored)) {
                expect_item = true;
            } else {
                it = comma;  // no item after the ",": the list ends before it
            }
        } else {
            it = after_item;
        }
    }
    SkipBlanks(it, last);
    return it == last;
}

}  // namespace Engine
