#pragma once
#include <map>
#include <string>

namespace Framework {

// Settings pushed to a module at run time (key/value). The reference host
// keeps them as plain strings.
class Policy {
public:
    std::map<std::string, std::string> values;
};

}  // namespace Framework
