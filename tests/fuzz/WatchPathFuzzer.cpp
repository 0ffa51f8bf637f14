// libFuzzer target for the watch path. Each input is a sequence of subscribe
// and unsubscribe requests (FtraceWatchMessage) for known, unknown and
// malformed system and event names, handled by a fresh FtraceTask whose
// instance "ZEV" is made inside a private tracing directory. After every
// request the result, the registry and set_event must match a small model of
// the registry and of the kernel's control files; at the end clear() must
// have written "0" to exactly the enable files the model says, and the
// instance the task made must be gone with the task.
//
// Names are not validated by the module: "/" and ".." in them reach other
// files of the tracing directory. The model follows the file system the same
// way; requests whose path would climb out of the private directory are
// skipped so that the run stays hermetic.

#include <Poco/NullChannel.h>

#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <set>

#include "FtraceTask.h"
#include "FtraceWatchMessage.h"
#include "FuzzInput.h"
#include "SDK/LoggerUtils.h"
#include "TaskTestSupport.h"

namespace fs = std::filesystem;

namespace {

using Key = std::pair<std::string, std::string>;
using Registry = std::map<Key, std::set<std::string>>;

// Pieces names are made of: fixture names, near misses, path syntax, the
// set_event syntax and control characters.
const char* const kTokens[] = {
    "sched", "sched_switch", "sched_process_exec", "sched_process_exit", "sched_process_fork", "sched_wakeup",
    "irq", "irq_handler_entry", "syscalls", "sys_enter_openat", "raw_syscalls", "sys_enter", "task",
    "task_rename", "signal", "signal_generate", "timer", "hrtimer_start", "nope", "SCHED", "/", "..", ".",
    ":", " ", "\n", "!", "*", "format", "enable", "events", "instances", "ZEV",
};

// What open() and libtraceevent see of a std::string.
std::string CString(const std::string& text) { return text.substr(0, text.find('\0')); }

// False when walking `relative` from `depth` directories below the private
// root would climb above it at some point.
bool StaysInside(const std::string& relative, int depth) {
    std::istringstream parts(relative);
    for (std::string part; std::getline(parts, part, '/');) {
        if (part == "..") depth -= 1;
        else if (!part.empty() && part != ".") depth += 1;
        if (depth < 0) return false;
    }
    return true;
}

using test_support::ReadAll;

// The registry of the task and the files the kernel would see, predicted.
class Model {
public:
    explicit Model(std::string instance_dir) : m_dir(std::move(instance_dir)) {}

    int Handle(const Framework::Task* watcher, const std::string& system, const std::string& event, bool remove) {
        if (watcher == nullptr || system.empty() || event.empty()) return 1;
        const Key key(system, event);
        if (!remove) {
            if (!m_registry[key].insert(watcher->name()).second) return 1;
            const auto found = Find(system, event);
            if (!found) return 1;  // the name stays recorded
            m_set_event += found->first + ":" + found->second + "\n";
            return 0;
        }
        const auto it = m_registry.find(key);
        if (it == m_registry.end() || it->second.erase(watcher->name()) == 0 || !it->second.empty()) return 0;
        const auto found = Find(system, event);
        if (!found) return 1;
        Disable(*found);
        return 0;
    }

    void Clear() {
        for (const auto& entry : m_registry)
            if (const auto found = Find(entry.first.first, entry.first.second)) Disable(*found);
        m_registry.clear();
    }

    const Registry& registry() const { return m_registry; }
    const std::string& set_event() const { return m_set_event; }
    bool Disabled(const std::string& enable_path) const { return m_disabled.count(enable_path) != 0; }

private:
    // As Ftrace::get_event: an event parsed earlier under the same system and
    // name, else the format file the names lead to, parsed under the given
    // system and the name its "name:" line states.
    std::optional<Key> Find(const std::string& system, const std::string& event) {
        const Key asked(CString(system), CString(event));
        if (m_loaded.count(asked)) return asked;
        const std::string path = CString(m_dir + "/events/" + system + "/" + event + "/format");
        std::error_code error;
        if (!fs::is_regular_file(path, error)) return std::nullopt;
        std::istringstream lines(ReadAll(path));
        std::string name;
        for (std::string line; name.empty() && std::getline(lines, line);)
            if (line.rfind("name: ", 0) == 0) name = line.substr(6);
        if (name.empty()) return std::nullopt;
        return *m_loaded.emplace(asked.first, name).first;
    }

    // As Ftrace::remove: "0" into the enable file next to the event's format, if there is one.
    void Disable(const Key& event) {
        const std::string path = m_dir + "/events/" + event.first + "/" + event.second + "/enable";
        std::error_code error;
        if (fs::is_regular_file(path, error)) m_disabled.insert(fs::canonical(path).string());
    }

    std::string m_dir;
    Registry m_registry;
    std::string m_set_event;
    std::set<Key> m_loaded;
    std::set<std::string> m_disabled;
};

struct Fixture {
    Fixture() {
        // Every log line is formatted (and so checked by the sanitizers), then dropped.
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace", true);
        logger->setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
        logger->setLevel(Poco::Message::PRIO_TRACE);
        // Unreadable formats are reported on std::cerr; keep the fuzzer's own output readable.
        std::cerr.setstate(std::ios::badbit);
    }
    test_support::TempTracingDir dir;
    tasktest::PlainTask watchers[3] = {tasktest::PlainTask("task_a"), tasktest::PlainTask("task_b"),
                                       tasktest::PlainTask("task_c")};
};

std::string Name(FuzzInput& in) {
    std::string name;
    for (int pieces = 1 + in.Byte() % 5; pieces > 0; --pieces) {
        const uint8_t pick = in.Byte();
        if (pick < 16) {
            const auto raw = in.Take(pick % 8);  // NUL and all
            name.append(raw.begin(), raw.end());
        } else {
            name += kTokens[pick % std::size(kTokens)];
        }
    }
    return name;
}

// A request's names: mostly a committed event, sometimes bent, sometimes free.
Key Names(FuzzInput& in, const test_support::TempTracingDir& dir) {
    const uint8_t mode = in.Byte();
    Key names = dir.Fixtures()[(mode >> 2) % dir.Fixtures().size()];
    if ((mode & 3) == 2) {
        std::string& part = (in.Byte() & 1) ? names.first : names.second;
        const std::string extra = Name(in);
        part = (in.Byte() & 1) ? extra + part : part + extra;
    } else if ((mode & 3) == 3) {
        names.first = Name(in);
        names.second = Name(in);
    }
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Fixture shared;
    const std::string instance_dir = shared.dir.Instance("ZEV");
    auto task = std::make_unique<Engine::FtraceTask>();
    FuzzCheck(task->ftrace().tracefs().IsValid() && task->ftrace().tracefs().IsCreated(), "ZEV was not created");
    shared.dir.Populate("ZEV");
    Model model(instance_dir);

    FuzzInput in(data, size);
    for (int request = 0; request < 48 && !in.Done(); ++request) {
        const uint8_t how = in.Byte();
        Framework::Task* watcher = (how & 3) == 3 ? nullptr : &shared.watchers[how & 3];
        const bool remove = how & 4;
        const Key names = Names(in, shared.dir);
        if (!StaysInside(CString(names.first + "/" + names.second + "/format"), 3)) continue;

        Engine::FtraceWatchMessage message(watcher, names.first, names.second, remove);
        const int result = message.MessageHandle(task.get());
        const int expected = model.Handle(watcher, names.first, names.second, remove);
        const std::string request_text = std::string(remove ? "remove " : "add ") + names.first + "|" +
                                         names.second + " by " + (watcher ? watcher->name() : "(null)");
        FuzzCheck(result == expected, request_text + ": result " + std::to_string(result));
        FuzzCheck(task->watches() == model.registry(), request_text + ": registry");
        FuzzCheck(ReadAll(instance_dir + "/set_event") == model.set_event(), request_text + ": set_event");
    }

    // What shutdown does: every key of the registry is switched off.
    task->clear();
    model.Clear();
    FuzzCheck(task->watches().empty(), "registry not empty after clear");
    for (const auto& [system, event] : shared.dir.Fixtures()) {
        const std::string enable = fs::canonical(instance_dir + "/events/" + system + "/" + event + "/enable");
        FuzzCheck(ReadAll(enable) == (model.Disabled(enable) ? "0" : ""), enable);
    }
    // The task made the instance, so it removes it.
    shared.dir.Empty("ZEV");
    task.reset();
    FuzzCheck(!fs::exists(instance_dir), "instance left behind by the task that made it");
    return 0;
}
