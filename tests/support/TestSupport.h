#pragma once
// Helpers every test area shares: polling, whole-file reads and writes, the
// lines a Poco logger writes, and a private tracing directory filled with
// the committed event formats.

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// The module's libtracefs shim (tracefs_shim.h); only TempTracingDir calls it.
extern "C" int ftrace_shim_set_tracing_dir(const char* dir);

namespace test_support {

namespace fs = std::filesystem;

inline bool WaitFor(const std::function<bool()>& done, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

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

// Standard output of a shell command.
inline std::string Output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    for (char buffer[1024]; pipe && fgets(buffer, sizeof buffer, pipe);) out += buffer;
    if (pipe) pclose(pipe);
    return out;
}

// "<priority> <text>" of every message a logger hands it, from any thread.
class CapturingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& m) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(m);
    }
    std::vector<std::string> lines(bool clear = false) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> lines;
        for (const auto& m : m_messages) lines.push_back(std::to_string(m.getPriority()) + " " + m.getText());
        if (clear) m_messages.clear();
        return lines;
    }
    std::vector<Poco::Message> messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    std::mutex m_mutex;
    std::vector<Poco::Message> m_messages;
};

// Creates the module's "ftrace" logger (the module logs nothing without it),
// admitting lines up to `level`, into a new capturing channel.
inline Poco::AutoPtr<CapturingChannel> CaptureFtraceLog(int level = Poco::Message::PRIO_INFORMATION) {
    Poco::AutoPtr<CapturingChannel> channel(new CapturingChannel);
    Poco::Logger::get("ftrace").setChannel(channel);
    Poco::Logger::get("ftrace").setLevel(level);
    return channel;
}

// A temporary directory that libtracefs takes for the tracing directory while
// the object lives. Populate fills an instance directory as the kernel would:
// events/<system>/<event>/{format,enable} of every committed fixture and
// empty set_event and set_event_pid (plain files, so every write can be read
// back). An instance populated before the module opens it is adopted.
class TempTracingDir {
public:
    explicit TempTracingDir(const std::string& instance = "") {
        // Memory-backed where possible: the fuzz targets make files for every input.
        std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm/ftrace_test_XXXXXX" : "/tmp/ftrace_test_XXXXXX";
        root = mkdtemp(pattern.data());
        fs::create_directories(root + "/instances");
        ftrace_shim_set_tracing_dir(root.c_str());
        if (!instance.empty()) Populate(instance);
    }
    ~TempTracingDir() {
        ftrace_shim_set_tracing_dir(nullptr);
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    TempTracingDir(const TempTracingDir&) = delete;
    TempTracingDir& operator=(const TempTracingDir&) = delete;

    std::string Instance(const std::string& name) const { return root + "/instances/" + name; }
    void Populate(const std::string& name) const {
        for (const auto& [system, event] : Fixtures()) {
            const std::string to = Instance(name) + "/events/" + system + "/" + event;
            WriteAll(to + "/format", ReadAll(std::string(FTRACE_FIXTURES_ROOT) + "/events/" + system + "/" + event + "/format"));
            WriteAll(to + "/enable", "");
        }
        WriteAll(Instance(name) + "/set_event", "");
        WriteAll(Instance(name) + "/set_event_pid", "");
    }
    // A plain directory, unlike the kernel's, cannot be removed with files in it.
    void Empty(const std::string& name) const {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(Instance(name), ignored)) fs::remove_all(entry.path(), ignored);
    }
    // (system, event) of every committed format, sorted.
    static const std::vector<std::pair<std::string, std::string>>& Fixtures() {
        static const auto fixtures = [] {
            std::vector<std::pair<std::string, std::string>> found;
            for (const auto& entry : fs::recursive_directory_iterator(std::string(FTRACE_FIXTURES_ROOT) + "/events"))
                if (entry.path().filename() == "format")
                    found.emplace_back(entry.path().parent_path().parent_path().filename(),
                                       entry.path().parent_path().filename());
            std::sort(found.begin(), found.end());
            return found;
        }();
        return fixtures;
    }

    std::string root;
};

}  // namespace test_support
