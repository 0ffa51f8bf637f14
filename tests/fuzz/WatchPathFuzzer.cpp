// libFuzzer target for the watch path. Each input is a sequence of subscribe
// and unsubscribe requests (FtraceWatchMessage) for known, unknown and
// malformed system and event names, handled by a fresh FtraceTask whose
// instance "ZEV" is made inside a private tracing directory. After every
// request the registry must hold exactly the subscriptions the requests
// leave, with the result that follows from them where the names alone decide
// it; set_event changes only by the one "system:event" line of a subscribe
// that was taken. clear() must empty the registry, and the instance must go
// with the task. Where a
// malformed name leads in the tracing directory is pinned on the real kernel
// (tests/task); here the sanitizers watch every name on its way through the
// file system and libtraceevent.
//
// Names are not validated by the module: "/" and ".." in them reach other
// files of the tracing directory. Requests whose path would climb out of the
// private directory are skipped so that the run stays hermetic.

#include <Poco/NullChannel.h>

#include <iostream>
#include <iterator>
#include <map>
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
    Registry expected;

    FuzzInput in(data, size);
    for (int request = 0; request < 48 && !in.Done(); ++request) {
        const uint8_t how = in.Byte();
        Framework::Task* watcher = (how & 3) == 3 ? nullptr : &shared.watchers[how & 3];
        const bool remove = how & 4;
        const Key names = Names(in, shared.dir);
        if (!StaysInside(CString(names.first + "/" + names.second + "/format"), 3)) continue;

        // The result the registry alone decides; -1 where it depends on the format file.
        int decided = -1;
        if (watcher == nullptr || names.first.empty() || names.second.empty()) {
            decided = 1;
        } else if (!remove) {
            if (!expected[names].insert(watcher->name()).second) decided = 1;
        } else {
            const auto it = expected.find(names);
            if (it == expected.end() || it->second.erase(watcher->name()) == 0 || !it->second.empty()) decided = 0;
        }
        const std::string before = ReadAll(instance_dir + "/set_event");
        const int result = Engine::FtraceWatchMessage(watcher, names.first, names.second, remove).MessageHandle(task.get());
        const std::string after = ReadAll(instance_dir + "/set_event");
        const std::string request_text = std::string(remove ? "remove " : "add ") + names.first + "|" +
                                         names.second + " by " + (watcher ? watcher->name() : "(null)");
        FuzzCheck(result == (decided < 0 ? result & 1 : decided), request_text + ": result " + std::to_string(result));
        FuzzCheck(task->watches() == expected, request_text + ": registry");
        // One line, and no line feed of a name in it: a name cannot enable another event.
        const std::string line = after.substr(std::min(before.size(), after.size()));
        const bool appended = after.compare(0, before.size(), before) == 0 &&
                              line.rfind(CString(names.first) + ":", 0) == 0 && line.find('\n') == line.size() - 1;
        FuzzCheck(!remove && result == 0 ? appended : after == before, request_text + ": set_event");
    }
    task->clear();  // what shutdown does, with every key of the registry
    FuzzCheck(task->watches().empty(), "registry not empty after clear");
    // The task made the instance, so it removes it.
    shared.dir.Empty("ZEV");
    task.reset();
    FuzzCheck(!fs::exists(instance_dir), "instance left behind by the task that made it");
    return 0;
}
