#include "FtraceBufferSize.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <string>

#include "ConfiguredNumber.h"
#include "FtraceLog.h"
#include "ftrace.h"

namespace Engine {

int FtraceBufferSize::Apply(const Poco::Util::AbstractConfiguration& config, Ftrace& ftrace) {
    const int kb = ConfiguredNumber(config, kKey, 1, kLargestKb, 0);
    if (kb == 0) return 0;
    // The kernel allocates the pages here, and refuses (logged) what it cannot get.
    if (!ftrace.write_file(ftrace.tracing_file("buffer_size_kb"), std::to_string(kb))) return 0;
    FTRACE_LOG(Poco::Message::PRIO_INFORMATION, "Ftrace buffer: %d KiB per CPU", kb);
    return kb;
}

}  // namespace Engine
