#pragma once
// Shared by the catalogue tests: a capture of log lines on a Poco logger, and
// a temporary tracing directory holding copies of the committed format files.

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tracefs_shim.h"

namespace catalogue_test {

namespace fs = std::filesystem;

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteAll(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Every line written to one logger while it lives; the logger's channel and
// level are put back afterwards.
class LogCapture : public Poco::Channel {
public:
    static Poco::AutoPtr<LogCapture> On(Poco::Logger& logger) {
        Poco::AutoPtr<LogCapture> capture(new LogCapture(logger));
        logger.setChannel(capture);
        logger.setLevel(Poco::Message::PRIO_TRACE);
        return capture;
    }
    void log(const Poco::Message& message) override { lines.push_back(message); }
    void Release() {
        m_logger.setChannel(m_previous_channel);
        m_logger.setLevel(m_previous_level);
    }
    std::vector<Poco::Message> lines;

private:
    explicit LogCapture(Poco::Logger& logger)
        : m_logger(logger), m_previous_channel(logger.getChannel()), m_previous_level(logger.getLevel()) {}
    Poco::Logger& m_logger;
    Poco::AutoPtr<Poco::Channel> m_previous_channel;
    int m_previous_level;
};

// <tmp>/instances/<instance>/ with events/<system>/<event>/{format,enable} for
// every committed fixture and empty set_event / set_event_pid files, made the
// tracing directory of libtracefs while the object lives.
class TempTracingDir {
public:
    explicit TempTracingDir(const std::string& instance) {
        char pattern[] = "/tmp/ftrace_catalogue_XXXXXX";
        root = mkdtemp(pattern);
        dir = root + "/instances/" + instance;
        fs::create_directories(dir);
        fs::copy(std::string(FTRACE_FIXTURES_ROOT) + "/events", dir + "/events", fs::copy_options::recursive);
        for (const auto& entry : fs::recursive_directory_iterator(dir + "/events"))
            if (entry.path().filename() == "format") WriteAll(entry.path().parent_path() / "enable", "");
        WriteAll(dir + "/set_event", "");
        WriteAll(dir + "/set_event_pid", "");
        ftrace_shim_set_tracing_dir(root.c_str());
    }
    ~TempTracingDir() {
        ftrace_shim_set_tracing_dir(nullptr);
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::string root;
    std::string dir;
};

}  // namespace catalogue_test
