#include "AvailableEvents.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace Agent {

bool AvailableEvents::Load(const std::string& tracing_dir, std::string* error) {
    m_path = tracing_dir + "/available_events";
    m_names.clear();
    errno = 0;
    std::ifstream in(m_path);
    if (!in) {
        if (error != nullptr) *error = m_path + ": " + std::strerror(errno != 0 ? errno : EIO);
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty()) m_names.insert(line);
    }
    if (m_names.empty()) {
        // Unreadable pseudo files can open and then read nothing.
        if (error != nullptr) *error = m_path + ": no events listed";
        return false;
    }
    return true;
}

}  // namespace Agent
