#pragma once
#include <string>

namespace SDK {

class PathUtils {
public:
    // The last component of a '/'-separated path ("a/b/c.cpp" -> "c.cpp").
    static std::string GetFileNameFromPath(const std::string& path);
};

}  // namespace SDK
