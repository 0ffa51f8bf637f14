#include "FtraceAgent.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionSet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "AvailableEvents.h"
#include "FtraceBufferSize.h"
#include "FtraceModule.h"
#include "FtraceWakeup.h"
#include "InstanceLock.h"
#include "InstanceLossReader.h"
#include "OutputTable.h"
#include "PidFilter.h"
#include "PrintableText.h"
#include "PrintingSubscriberModule.h"
#include "RegularFile.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "SDK/LoggerUtils.h"
#include "StopTimer.h"
#include "tracefs_shim.h"
#include "ftrace.h"

namespace Agent {
namespace {

constexpr const char* kLoggerName = "ftrace-agent";

void Log(int priority, const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetModuleLogger(kLoggerName, false), priority, text,
                          __FILE__, line);
}

std::string Directory(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string Absolute(const std::string& path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr) return resolved;
    return Poco::Path(path).absolute().toString();
}

bool IsFile(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Modules run with the agent's privileges: whoever can replace one owns the host.
void WarnIfOthersCanWrite(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return;
    if (st.st_uid != geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        Log(Poco::Message::PRIO_WARNING,
            path + " can be changed by other users than this one, who could run code as root through it", __LINE__);
    }
}

// Shared objects of `dir` other than `skip`, in name order; false, with the
// reason, when the directory cannot be listed.
bool SharedObjects(const std::string& dir, const std::string& skip, std::vector<std::string>* names,
                   std::string* reason) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        *reason = RegularFile::Reason(errno);
        return false;
    }
    while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0 && name != skip) names->push_back(name);
    }
    closedir(d);
    std::sort(names->begin(), names->end());
    return true;
}

}  // namespace

FtraceAgent::FtraceAgent() : m_instance_lock(kInstanceName) {}

FtraceAgent::~FtraceAgent() {
    // Adopted, so never removed here; released before the module removes it.
    if (m_instance) m_pid_filter.Clear(*m_instance);
    m_instance.reset();
    Shutdown();
}

int FtraceAgent::Fail(const std::string& line) const {
    std::cerr << PrintableText::Escape(line) << std::endl;
    return kExitUserError;
}

void FtraceAgent::defineOptions(Poco::Util::OptionSet& options) {
    Framework::Engine::defineOptions(options);
    using Poco::Util::Option;
    options.addOption(Option("help", "h", "print this help and exit"));
    options.addOption(Option("events", "e",
                             "comma-separated trace events to print, as system:event; repeatable "
                             "(default: sched:sched_process_exec, sched:sched_process_fork and "
                             "sched:sched_process_exit)")
                          .argument("LIST")
                          .repeatable(true));
    options.addOption(Option("format", "f", "standard output: text (one readable line per message), raw (the "
                                            "message's own text form), json (one object per line) or none (count "
                                            "only); default text")
                          .argument("FORMAT"));
    options.addOption(Option("output", "o",
                             "nats://HOST:PORT[,nats://HOST:PORT...]: publish to NATS JetStream instead of standard "
                             "output, the JSON object of --format=json per message; see the --nats-* options")
                          .argument("URLS"));
    NatsSettings::DefineOptions(options);
    options.addOption(Option("latency", "l",
                             "low (default): an event is read within milliseconds of happening, and a burst is "
                             "read in whole pages every few milliseconds, by threads at nice -10; batch: records "
                             "are read when a CPU's buffer is half full or after at most a second")
                          .argument("low|batch"));
    options.addOption(Option("duration", "d", "stop after SECONDS (fractions allowed)").argument("SECONDS"));
    options.addOption(Option("count", "c", "stop after N messages").argument("N"));
    options.addOption(Option("pid", "p", "trace only process PID (repeatable)").argument("PID").repeatable(true));
    options.addOption(Option("cpu-limit", "", "keep the reading thread under PERCENT of one CPU (1-100)")
                          .argument("PERCENT"));
    options.addOption(Option("buffer-kb", "",
                             "size each CPU's ring buffer of the tracing instance to KIB KiB (1-1048576; default: "
                             "the kernel's): a larger one loses nothing through longer spells without CPU for "
                             "the reading thread")
                          .argument("KIB"));
    options.addOption(Option("module-dir", "m",
                             "directory holding libftrace_module.so and the other modules to load, every "
                             "*.so in it that exports CreateModule (default: ../module from the executable's "
                             "directory, installed or in the build tree)")
                          .argument("DIR"));
    options.addOption(Option("log-level", "",
                             "none, fatal, critical, error, warning, notice, information, debug or trace "
                             "(default information)")
                          .argument("LEVEL"));
    options.addOption(Option("log-file", "", "write log lines to FILE instead of standard error").argument("FILE"));
    options.addOption(Option("daemon", "",
                             "run in the background: fork, start a new session, change to /, and point standard "
                             "input and terminal outputs at /dev/null"));
}

void FtraceAgent::handleOption(const std::string& name, const std::string& value) {
    Framework::Engine::handleOption(name, value);
    try {
        if (name == "help") {
            m_options.help = true;
            stopOptionsProcessing();
        } else if (name == "events") {
            auto events = AgentOptions::ParseEventList(value);
            if (!m_events_given) m_options.events.clear();
            m_events_given = true;
            for (auto& event : events) {
                const bool known = std::any_of(m_options.events.begin(), m_options.events.end(),
                                               [&](const EventName& e) { return e.FullName() == event.FullName(); });
                if (!known) m_options.events.push_back(std::move(event));
            }
        } else if (name == "format") {
            m_options.format = AgentOptions::ParseFormat(value);
            m_format_given = true;
        } else if (name == "output") {
            m_options.nats.servers = NatsSettings::ParseServers(value);
            m_options.output_url = value;
        } else if (name == "latency") {
            m_options.latency = AgentOptions::ParseLatency(value);
        } else if (name == "duration") {
            m_options.duration_seconds = AgentOptions::ParseSeconds(value);
        } else if (name == "count") {
            m_options.count = static_cast<uint64_t>(AgentOptions::ParseInteger(name, value, 1, LLONG_MAX));
        } else if (name == "pid") {
            m_options.pids.push_back(static_cast<int>(AgentOptions::ParseInteger(name, value, 1, INT_MAX)));
        } else if (name == "cpu-limit") {
            m_options.cpu_limit_percent = static_cast<int>(AgentOptions::ParseInteger(name, value, 1, 100));
        } else if (name == "buffer-kb") {
            m_options.buffer_kb = static_cast<int>(
                AgentOptions::ParseInteger(name, value, 1, ::Engine::FtraceBufferSize::kLargestKb));
        } else if (name == "module-dir") {
            if (value.empty()) throw std::invalid_argument("--module-dir: empty; leave the option out for the default");
            m_options.module_dir = value;
        } else if (name == "log-level") {
            try {
                Poco::Logger::parseLevel(value);
            } catch (const Poco::Exception&) {
                throw std::invalid_argument("--log-level: '" + value + "' is not a log level");
            }
            m_options.log_level = value;
        } else if (name == "log-file") {
            if (value.empty()) {
                throw std::invalid_argument("--log-file: empty; leave the option out for standard error");
            }
            m_options.log_file = value;
        } else if (name == "daemon") {
            m_options.daemon = true;
        } else {
            m_options.nats.HandleOption(name, value);
        }
        if (m_format_given && !m_options.output_url.empty()) {
            throw std::invalid_argument("--format chooses the form of standard output, which --output replaces: "
                                        "give one of them");
        }
    } catch (const std::invalid_argument& e) {
        throw Poco::Util::InvalidArgumentException(e.what());
    }
}

void FtraceAgent::PrintHelp() {
    Poco::Util::HelpFormatter help(options());
    help.setCommand("ftrace-agent");
    help.setUsage("[OPTIONS]");
    help.setHeader(
        "Prints kernel trace events of this host, one line per event, until stopped with Ctrl-C or SIGTERM. "
        "Needs root and tracefs; uses the tracing instance ZEV. Without options it traces process life "
        "(exec, fork, exit).");
    help.setFooter(
        "Exit status: 0 after a clean stop, 2 when the run cannot start (not root, unknown event, module that "
        "cannot be loaded, bad option). A summary of what was received goes to standard error on exit.");
    help.setUnixStyle(true);
    help.format(std::cout);
}

bool FtraceAgent::ConfigureLogging(std::string* error) {
    const int level = Poco::Logger::parseLevel(m_options.log_level);
    Poco::AutoPtr<Poco::Channel> sink;
    if (m_options.log_file.empty()) {
        sink = new Poco::ConsoleChannel(std::cerr);
    } else {
        m_options.log_file = Poco::Path(m_options.log_file).absolute().toString();
        const std::string problem = RegularFile::ProblemAppending(m_options.log_file);
        if (!problem.empty()) {
            *error = "cannot open log file " + m_options.log_file + ": " + problem +
                     "; give --log-file the path of a writable regular file";
            return false;
        }
        sink = new Poco::FileChannel(m_options.log_file);
    }
    Poco::AutoPtr<Poco::PatternFormatter> pattern = new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i %p %s: %t");
    pattern->setProperty("times", "local");
    Poco::AutoPtr<Poco::Channel> channel = new Poco::FormattingChannel(pattern, sink);
    // Every logger that exists already (the empty prefix names them all), then the root for new ones.
    Poco::Logger::setChannel("", channel);
    Poco::Logger::setLevel("", level);
    auto* loggers = SDK::LoggerUtils::GetInstance();
    for (const char* name : {"ftrace", kLoggerName}) {
        Poco::Logger* logger = loggers->GetModuleLogger(name, true);
        logger->setChannel(channel);
        logger->setLevel(level);
    }
    return true;
}

std::string FtraceAgent::DefaultModuleDir() const {
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return ".";
    exe[n] = '\0';
    const std::string prefix = Directory(Directory(exe));
    // Installed: <prefix>/bin next to <prefix>/module. The build tree has the
    // same build/bin and build/module; build/lib is the last resort.
    for (const char* sub : {"/module", "/lib"}) {
        if (IsFile(prefix + sub + "/" + kModuleFileName)) return prefix + sub;
    }
    return prefix + "/module";
}

int FtraceAgent::CheckEnvironment(std::string* tracing_dir) {
    // The same lookup the module makes, so both agree on where ZEV lives.
    const char* dir = ftrace_shim_tracing_dir();
    if (dir == nullptr) return Fail(kNoTracingLine);
    *tracing_dir = dir;

    AvailableEvents available;
    std::string reason;
    if (!available.Load(*tracing_dir, &reason)) {
        Log(Poco::Message::PRIO_DEBUG, reason, __LINE__);
        return Fail(kNoTracingLine);
    }
    for (const auto& event : m_options.events) {
        if (!available.Contains(event.FullName())) {
            return Fail("unknown event " + event.FullName() + ": the kernel does not offer it; choose one listed in " +
                        available.Path());
        }
    }
    if (access((*tracing_dir + "/instances").c_str(), W_OK) != 0) return Fail(kNoTracingLine);
    for (const int pid : m_options.pids) {
        if (kill(pid, 0) != 0 && errno == ESRCH) {
            return Fail("no process with pid " + std::to_string(pid) + ": give --pid the id of a running process");
        }
    }
    return 0;
}

std::string FtraceAgent::LinkedCopyOf(const std::string& module_path, std::string* other_copy) const {
    Dl_info info{};
    struct stat linked {};
    struct stat given {};
    if (dladdr(reinterpret_cast<void*>(&CreateModule), &info) == 0 || info.dli_fname == nullptr) return module_path;
    if (stat(info.dli_fname, &linked) != 0 || stat(module_path.c_str(), &given) != 0) return module_path;
    if (linked.st_dev == given.st_dev && linked.st_ino == given.st_ino) return module_path;
    // Two copies of one library in a process: the dynamic linker binds the
    // second one's symbols to the first, whose globals would then be set up
    // twice. An identical copy is therefore not loaded; the linked file is.
    if (linked.st_size == given.st_size) {
        std::ifstream a(info.dli_fname, std::ios::binary), b(module_path, std::ios::binary);
        if (std::equal(std::istreambuf_iterator<char>(a), std::istreambuf_iterator<char>(),
                       std::istreambuf_iterator<char>(b))) {
            Log(Poco::Message::PRIO_INFORMATION,
                module_path + " is a copy of " + info.dli_fname + ", which this agent is linked with: that one is loaded",
                __LINE__);
            return info.dli_fname;
        }
    }
    *other_copy = info.dli_fname;
    return module_path;
}

int FtraceAgent::LoadModules(const std::string& module_dir) {
    const std::string given_path = module_dir + "/" + kModuleFileName;
    std::string error = RegularFile::Problem(given_path);
    // Read by the module when its task starts; batch leaves the keys unset.
    const ::Engine::FtraceWakeup wakeup =
        m_options.latency == Latency::Low ? ::Engine::FtraceWakeup::LowLatency() : ::Engine::FtraceWakeup();
    wakeup.Store(config());
    if (m_options.buffer_kb != 0) config().setInt(::Engine::FtraceBufferSize::kKey, m_options.buffer_kb);
    if (!error.empty()) {
        return Fail("cannot load module " + given_path + ": " + error + "; point --module-dir at the directory " +
                    "holding " + kModuleFileName);
    }
    // Every file is checked before any module is loaded: nothing is set up
    // for a run that cannot start.
    std::vector<std::string> others;
    if (!SharedObjects(module_dir, kModuleFileName, &others, &error)) {
        return Fail("cannot read module directory " + module_dir + ": " + error +
                    "; point --module-dir at a directory the agent can read");
    }
    for (const auto& name : others) {
        error = RegularFile::Problem(module_dir + "/" + name);
        if (!error.empty()) {
            return Fail("cannot load module " + module_dir + "/" + name + ": " + error +
                        "; fix it or remove it from the module directory");
        }
    }
    std::string linked;  // set when the module directory holds another build of the module
    const std::string ftrace_path = LinkedCopyOf(given_path, &linked);
    if (void* probe = dlopen(ftrace_path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        dlclose(probe);
    } else {
        const char* text = dlerror();
        return Fail("cannot load module " + ftrace_path + ": " + (text ? text : "unknown error") +
                    "; reinstall the agent or point --module-dir at a working copy");
    }
    WarnIfOthersCanWrite(module_dir);
    WarnIfOthersCanWrite(ftrace_path);
    if (!linked.empty()) {
        Log(Poco::Message::PRIO_WARNING,
            ftrace_path + " is not the copy this agent was linked with (" + linked + "); that one runs", __LINE__);
    }
    if (LoadModule(ftrace_path, &error) != 0) {
        // It loaded above, so what failed is the module's Init: its tracing instance.
        Log(Poco::Message::PRIO_DEBUG, ftrace_path + ": " + error, __LINE__);
        return Fail(kNoTracingLine);
    }
    Log(Poco::Message::PRIO_INFORMATION, "loaded " + ftrace_path, __LINE__);
    Log(Poco::Message::PRIO_INFORMATION,
        std::string("latency ") + AgentOptions::LatencyName(m_options.latency) + ": " + wakeup.Describe(), __LINE__);

    for (const auto& name : others) {
        const std::string path = module_dir + "/" + name;
        void* probe = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (probe == nullptr) {
            const char* text = dlerror();
            return Fail("cannot load module " + path + ": " + (text ? text : "unknown error") +
                        "; fix it or remove it from the module directory");
        }
        // Libraries without a factory (the platform's own, helpers) are not modules.
        const bool is_module = dlsym(probe, "CreateModule") != nullptr;
        int rc = 0;
        if (is_module) {
            WarnIfOthersCanWrite(path);
            rc = LoadModule(path, &error);
        }
        dlclose(probe);
        if (!is_module) continue;
        if (rc != 0) {
            // It loads (the probe resolved every symbol), so the module itself
            // declined, as the ftrace module does without tracefs: run without it.
            Log(Poco::Message::PRIO_WARNING, "not using " + path + ": " + error, __LINE__);
            continue;
        }
        Log(Poco::Message::PRIO_INFORMATION, "loaded " + path, __LINE__);
    }
    return 0;
}

bool FtraceAgent::Daemonize(std::string* error) {
    std::cout.flush();
    std::cerr.flush();
    const pid_t child = fork();
    if (child < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (child > 0) {
        std::fprintf(stderr, "ftrace-agent: running in the background as pid %d\n", static_cast<int>(child));
        // The child owns the loaded modules and the tracing instance now: no destructors here.
        _exit(0);
    }
    if (setsid() < 0) {
        *error = std::string("setsid: ") + std::strerror(errno);
        return false;
    }
    if (chdir("/") != 0) {
        *error = std::string("chdir /: ") + std::strerror(errno);
        return false;
    }
    const int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null_fd < 0) {
        *error = std::string("/dev/null: ") + std::strerror(errno);
        return false;
    }
    // Redirected outputs (a file, a pipe) keep receiving events and the summary.
    dup2(null_fd, STDIN_FILENO);
    if (isatty(STDOUT_FILENO)) dup2(null_fd, STDOUT_FILENO);
    if (isatty(STDERR_FILENO)) dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    return true;
}

int FtraceAgent::main(const std::vector<std::string>& args) {
    if (m_options.help) {
        PrintHelp();
        return EXIT_OK;
    }
    // Words that are not options (and everything after "--") would otherwise be dropped unseen.
    if (!args.empty()) {
        return Fail("ftrace-agent: unexpected argument '" + args.front() + "': the agent takes options only, each " +
                    "as --name=value; see ftrace-agent --help");
    }
    std::string error;
    if (!ConfigureLogging(&error)) return Fail(error);
    if (m_options.cpu_limit_percent > 0) SDK::InnerCpuCtrlUtils::Enable(m_options.cpu_limit_percent);

    std::string tracing_dir;
    if (const int rc = CheckEnvironment(&tracing_dir)) return rc;
    std::string holder;
    if (!m_instance_lock.TryAcquire(&holder, &error)) {
        if (!error.empty()) return Fail("cannot lock " + error);
        return Fail("instance ZEV is in use by another ftrace-agent" + (holder.empty() ? "" : " (pid " + holder + ")") +
                    ": stop that one first");
    }
    // Before the tracing instance exists: a refused output leaves nothing behind.
    m_output = OutputTable::Make({m_options, m_field_types, STDOUT_FILENO});
    if (!m_output->Check(&error)) return Fail(error);
    if (const int rc = RemoveLeftoverInstance(tracing_dir)) return rc;
    const std::string module_dir = Absolute(m_options.module_dir.empty() ? DefaultModuleDir() : m_options.module_dir);
    if (const int rc = LoadModules(module_dir)) return rc;
    return Trace();
}

int FtraceAgent::RemoveLeftoverInstance(const std::string& tracing_dir) const {
    // This agent holds the lock, so no other agent uses ZEV: it was left by a
    // run that did not stop cleanly, with that run's records, loss counts and
    // events still on. Removed, so that the module makes it afresh; the
    // kernel switches its events off as it goes.
    const std::string instance_dir = tracing_dir + "/instances/" + kInstanceName;
    if (access(instance_dir.c_str(), F_OK) != 0) return 0;
    if (rmdir(instance_dir.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        return Fail("instance ZEV was left behind and cannot be removed (" + reason +
                    "): a program has its files open; stop it, then rmdir " + instance_dir);
    }
    Log(Poco::Message::PRIO_WARNING,
        "removed instance ZEV, left behind by a run that did not stop cleanly, with its records and events",
        __LINE__);
    return 0;
}

void FtraceAgent::AfterUnInit() {
    if (!m_instance) return;
    // The ftrace task has drained for the last time and switched its events
    // off; what the buffers still hold was recorded and never read. The
    // instance's stats and filter go away with the module: read and clear them now.
    m_statistics.SetKernelLoss(InstanceLossReader::Read(m_instance->tracefs().dir()));
    m_pid_filter.Clear(*m_instance);
    m_instance.reset();
}

int FtraceAgent::Trace() {
    // Adopts the instance the module created; it stays the module's to remove.
    m_instance = std::make_unique<Ftrace>(kInstanceName);
    if (!m_instance->tracefs().IsValid()) return Fail(kNoTracingLine);
    // The run's pid filter is exactly --pid.
    m_pid_filter.Apply(*m_instance, m_options.pids);

    std::vector<std::string> names;
    for (const auto& event : m_options.events) names.push_back(event.FullName());
    m_statistics.Expect(names);
    m_field_types.Load(*m_instance, m_options.events);
    if (AddModule(new PrintingSubscriberModule(*this, m_options, m_statistics, *m_output)) != 0) {
        std::cerr << "ftrace-agent: the printing task could not be registered" << std::endl;
        return EXIT_SOFTWARE;
    }

    std::string error;
    if (m_options.daemon) {
        if (!Daemonize(&error)) {
            std::cerr << "ftrace-agent: cannot run in the background: " << error << std::endl;
            return EXIT_OSERR;
        }
        m_instance_lock.Refresh();
    }

    m_statistics.Start();
    if (StartTasks() != 0) {
        std::cerr << "ftrace-agent: not every task could be started; see the log" << std::endl;
        m_statistics.Stop();
        Shutdown();
        return EXIT_SOFTWARE;
    }
    Log(Poco::Message::PRIO_INFORMATION, "tracing " + std::to_string(names.size()) + " event(s); stop with Ctrl-C",
        __LINE__);

    StopTimer timer;
    if (m_options.duration_seconds > 0) timer.Start(m_options.duration_seconds, [this] { RequestStop(); });
    const int signal_number = WaitForStopRequest();
    timer.Cancel();
    m_statistics.Stop();
    if (signal_number != 0) {
        Log(Poco::Message::PRIO_INFORMATION, std::string("stopping on ") + strsignal(signal_number), __LINE__);
    }

    Shutdown();
    m_statistics.Print(std::cerr);
    m_output->PrintSummary(std::cerr);
    return EXIT_OK;
}

}  // namespace Agent
