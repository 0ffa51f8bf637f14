#pragma once
// Shared by the catalogue tests: file helpers, the "ftrace" logger's lines, and
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

// "<priority> <text>" of every line the "ftrace" logger writes from now on.
class LogCapture : public Poco::Channel {
public:
    static Poco::AutoPtr<LogCapture> Start() {
        Poco::AutoPtr<LogCapture> capture(new LogCapture);
        Poco::Logger::get("ftrace").setChannel(capture);
        return capture;
    }
    void log(const Poco::Message& m) override { lines.push_back(std::to_string(m.getPriority()) + " " + m.getText()); }
    std::vector<std::string> lines;
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
