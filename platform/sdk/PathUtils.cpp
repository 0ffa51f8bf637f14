#include "SDK/PathUtils.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace SDK
