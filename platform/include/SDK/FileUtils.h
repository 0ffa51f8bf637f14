#pragma once
#include <string>

namespace SDK {

class FileUtils {
public:
    // Reads the whole file at `path` into `out` (replacing its content).
    // Returns 0 on success, -1 when the file cannot be opened or read, and -2
    // when it holds more than `max_size` bytes (then `out` is left empty).
    // Works on pseudo files (sysfs, procfs) whose stat size is 0.
    static int ReadFile(const std::string& path, std::string& out, long max_size);
};

}  // namespace SDK
