#pragma once
// The size of the instance's per-CPU ring buffers, as the host's
// configuration asks. A larger buffer rides out longer spells in which the
// reading thread gets no CPU (a busy host) before the kernel overwrites
// unread records. Without the key the instance keeps the kernel's size.

namespace Poco {
namespace Util {
class AbstractConfiguration;
}
}  // namespace Poco

class Ftrace;

namespace Engine {

struct FtraceBufferSize {
    static constexpr const char* kKey = "ftrace.buffer_size_kb";
    static constexpr int kLargestKb = 1 << 20;  // 1 GiB per CPU

    // Writes the key's size, in KiB per CPU, to the instance's buffer_size_kb
    // before any event is on. A value that is not a whole number from 1 to
    // kLargestKb, or a size the kernel refuses, is logged as an error and the
    // size stays. Returns the size written, 0 when none.
    static int Apply(const Poco::Util::AbstractConfiguration& config, Ftrace& ftrace);
};

}  // namespace Engine
