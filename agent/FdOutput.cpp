#include "FdOutput.h"

#include <Poco/Logger.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SDK/LoggerUtils.h"

namespace Agent {
namespace {
constexpr size_t kFlushBytes = 1 << 16;
}

void FdOutput::Write(const Engine::FtraceMessage& message) {
    Append(m_pending, message);
    if (m_pending.size() >= kFlushBytes) Flush();
}

bool FdOutput::Flush() {
    size_t done = 0;
    while (!m_broken && done < m_pending.size()) {
        const ssize_t n = write(m_fd, m_pending.data() + done, m_pending.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            // The reader went away (EPIPE) or the disk is full: the run stops
            // cleanly so that the events are switched off again.
            m_broken = true;
            SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace-agent", false),
                                  Poco::Message::PRIO_ERROR,
                                  std::string("cannot write the output: ") + std::strerror(errno), __FILE__, __LINE__);
        }
    }
    m_pending.clear();
    return !m_broken;
}

}  // namespace Agent
