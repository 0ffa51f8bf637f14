#include "ConfiguredNumber.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "FtraceLog.h"

namespace Engine {

int ConfiguredNumber(const Poco::Util::AbstractConfiguration& config, const char* key, int min, int max, int unset) {
    if (!config.has(key)) return unset;
    const std::string text = config.getString(key);
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value < min || value > max) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "Ignoring %s=%s: not a whole number from %d to %d", std::string(key),
                   text, min, max);
        return unset;
    }
    return static_cast<int>(value);
}

}  // namespace Engine
