#include "FtraceBufferSize.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "FtraceLog.h"
#include "ftrace.h"

namespace Engine {

int FtraceBufferSize::Apply(const Poco::Util::AbstractConfiguration& config, Ftrace& ftrace) {
    if (!config.has(kKey)) return 0;
    const std::string text = config.getString(kKey);
    char* end = nullptr;
    errno = 0;
    const long kb = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || kb < 1 || kb > kLargestKb) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "Ignoring %s=%s: not a whole number from 1 to %d", std::string(kKey),
                   text, kLargestKb);
        return 0;
    }
    // The kernel allocates the pages here, and refuses (logged) what it cannot get.
    if (!ftrace.write_file(ftrace.tracing_file("buffer_size_kb"), std::to_string(kb))) return 0;
    FTRACE_LOG(Poco::Message::PRIO_INFORMATION, "Ftrace buffer: %ld KiB per CPU", kb);
    return static_cast<int>(kb);
}

}  // namespace Engine
