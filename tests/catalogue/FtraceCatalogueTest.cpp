// The instance, the lazy format catalogue and the control-file writes, all
// against a temporary tracing directory so that every byte written can be read
// back, with the log lines and standard-error texts they produce.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <functional>

#include "CatalogueTestSupport.h"
#include "TraceFS.h"
#include "ftrace.h"

using namespace catalogue_test;

namespace {

struct Line {
    std::string text;
    int priority;
};

std::vector<Line> Lines(const LogCapture& capture, const char* file) {
    std::vector<Line> lines;
    for (const Poco::Message& message : capture.lines) {
        EXPECT_STREQ(message.getSourceFile(), file);
        EXPECT_GT(message.getSourceLine(), 0);
        lines.push_back({message.getText(), message.getPriority()});
    }
    return lines;
}

bool operator==(const Line& a, const Line& b) { return a.text == b.text && a.priority == b.priority; }
std::ostream& operator<<(std::ostream& os, const Line& line) { return os << line.priority << " " << line.text; }

}  // namespace

TEST(TraceFSTest, CreatesAdoptsOrFailsAndRemovesOnlyWhatItCreated) {
    TempTracingDir tracing("adopted");
    struct Row {
        std::string name, dir;
        bool valid, created;
    } rows[] = {
        {"fresh", tracing.root + "/instances/fresh", true, true},
        {"adopted", tracing.dir, true, false},
        {"", tracing.root, true, false},  // a null name: the top instance, adopted
        {"no/such", "", false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto warnings = LogCapture::On(Poco::Logger::root());
        {
            TraceFS tracefs(row.name);
            EXPECT_EQ(tracefs.IsValid(), row.valid);
            EXPECT_EQ(tracefs.IsCreated(), row.created);
            EXPECT_EQ(tracefs.dir(), row.dir);
            EXPECT_EQ(tracefs.file("set_event"), row.valid ? row.dir + "/set_event" : "");
            EXPECT_TRUE(!row.valid || fs::is_directory(row.dir));
        }
        warnings->Release();
        const std::vector<Line> expected_warnings{{"Failed to init FtraceFS(-1), perhaps not support", 4}};
        EXPECT_EQ(Lines(*warnings, "TraceFS.cpp"), row.valid ? std::vector<Line>{} : expected_warnings);
        if (row.valid) {
            EXPECT_EQ(fs::exists(row.dir), !row.created);
        }
    }
}

TEST(FtraceCatalogueTest, LoadsFormatsLazilyAndReportsBadOnesOnStandardError) {
    TempTracingDir tracing("catalogue");
    WriteAll(tracing.dir + "/events/bad/empty/format", "");
    WriteAll(tracing.dir + "/events/bad/garbage/format", "this is not a format\n");
    std::string cut = ReadAll(tracing.dir + "/events/sched/sched_process_exec/format");
    cut.replace(cut.find("sched_process_exec"), 18, "cut");
    WriteAll(tracing.dir + "/events/sched/cut/format", cut + std::string(1, '\0') + "name: other\nID: 1\n");
    fs::create_directories(tracing.dir + "/events/bad/directory/format");
    Ftrace ftrace("catalogue");

    struct Row {
        std::string system, event, error;
        bool loads;
    } rows[] = {
        {"sched", "sched_switch", "", true},
        {"bad", "missing", "Failed to read format (or it was empty)\n", false},
        {"bad", "empty", "Failed to read format (or it was empty)\n", false},
        {"bad", "directory", "Failed to read format (or it was empty)\n", false},
        {"bad", "garbage", "Failed to parse format: ", false},
        {"sched", "cut", "", true},  // parsed up to the NUL byte only
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.system + ":" + row.event);
        for (int attempt = 0; attempt < 2; ++attempt) {  // failures are not remembered
            testing::internal::CaptureStderr();
            const FtraceEvent event = ftrace.get_event(row.system, row.event);
            const std::string error = testing::internal::GetCapturedStderr();
            EXPECT_EQ(bool(event), row.loads);
            if (row.loads) {
                EXPECT_EQ(error, "");
            }
            EXPECT_EQ(error.substr(0, row.error.size()), row.error);
            EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), row.loads ? 0 : 1) << error;
        }
    }
    EXPECT_EQ(ftrace.read_ftrace_format("sched", "cut"), cut);

    // A loaded event is answered from the catalogue, without the file.
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    fs::remove(tracing.dir + "/events/sched/sched_switch/format");
    testing::internal::CaptureStderr();
    EXPECT_EQ(ftrace.get_event("sched", "sched_switch").get(), sw.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    EXPECT_EQ(ftrace.get_event(sw.id()).get(), sw.get());
    const std::string fork = ReadAll(tracing.dir + "/events/sched/sched_process_fork/format");
    EXPECT_FALSE(ftrace.get_event(std::stoi(fork.substr(fork.find("ID: ") + 4))));  // never loaded
    EXPECT_EQ(ftrace.events_count(), 2);
    tep_event** listed = ftrace.list_events();
    ASSERT_NE(listed, nullptr);
    ASSERT_TRUE(listed[0] && listed[1] && !listed[2]);
    EXPECT_LT(listed[0]->id, listed[1]->id);
}

TEST(FtraceControlTest, WritesControlFilesExactlyAndLogsFailures) {
    TempTracingDir tracing("control");
    const std::string events = tracing.dir + "/events/";
    const std::string set_event = tracing.dir + "/set_event", pid_file = tracing.dir + "/set_event_pid";
    fs::remove(events + "irq/irq_handler_entry/enable");
    fs::remove(events + "timer/hrtimer_start/enable");
    fs::create_symlink("/dev/full", events + "timer/hrtimer_start/enable");
    Ftrace ftrace("control");
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    const FtraceEvent irq = ftrace.get_event("irq", "irq_handler_entry");
    const FtraceEvent timer = ftrace.get_event("timer", "hrtimer_start");
    ASSERT_TRUE(sw && irq && timer);

    struct Row {
        const char* what;
        std::function<void()> action;
        std::string file, content, log;
    } rows[] = {
        {"add", [&] { ftrace.add(sw); }, set_event, "sched:sched_switch\n", ""},
        {"add again", [&] { ftrace.add(sw); }, set_event, "sched:sched_switch\nsched:sched_switch\n", ""},
        {"remove", [&] { ftrace.remove(sw); }, events + "sched/sched_switch/enable", "0", ""},
        {"remove without enable file", [&] { ftrace.remove(irq); }, events + "irq/irq_handler_entry/enable", "",
         "Ftrace::remove open file {" + events + "irq/irq_handler_entry/enable} err"},
        {"remove, write fails", [&] { ftrace.remove(timer); }, "", "",
         "Ftrace::remove write file {" + events + "timer/hrtimer_start/enable} err"},
        {"append to missing file", [&] { ftrace.append_file(tracing.dir + "/nope", "x"); }, tracing.dir + "/nope",
         "", "Ftrace::append open file {" + tracing.dir + "/nope} err"},
        {"append, write fails", [&] { ftrace.append_file("/dev/full", "x"); }, "", "",
         "Ftrace::append write file {/dev/full} err"},
        {"add pids", [&] {
             ftrace.event_filter_add_pid(42);
             ftrace.event_filter_add_pid(-7);
         }, pid_file,
         "42\n-7\n", ""},
        {"clean", [&] { ftrace.event_filter_clean_all(); }, pid_file, "", ""},
    };
    for (Row& row : rows) {
        SCOPED_TRACE(row.what);
        auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
        row.action();
        capture->Release();
        if (!row.file.empty()) {
            EXPECT_EQ(ReadAll(row.file), row.content);
        }
        if (!row.file.empty() && row.content.empty() && !row.log.empty()) {
            EXPECT_FALSE(fs::exists(row.file));
        }
        const std::vector<Line> expected = row.log.empty() ? std::vector<Line>{} : std::vector<Line>{{row.log, 3}};
        EXPECT_EQ(Lines(*capture, "ftrace.cpp"), expected);
    }
}

TEST(FtraceControlTest, RemovingAPidRewritesTheKeptLines) {
    TempTracingDir tracing("pids");
    const std::string pid_file = tracing.dir + "/set_event_pid";
    Ftrace ftrace("pids");
    struct Row {
        std::string before;
        int pid;
        std::string after;
    } rows[] = {
        {"1\n2\n3\n", 2, "1\n3"},   {"5\n5\n6\n", 5, "6"},   {"5\n", 5, ""},      {"1\n\n2\n", 2, "1\n"},
        {" 7\n07\n7\n", 7, " 7\n07"}, {"1\n2\n", 9, "1\n2"}, {"", 3, ""},         {"8", 8, ""},
        {"-4\n4\n", -4, "4"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.before + " - " + std::to_string(row.pid));
        WriteAll(pid_file, row.before);
        auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
        ftrace.event_filter_rmv_pid(row.pid);
        capture->Release();
        EXPECT_EQ(ReadAll(pid_file), row.after);
        EXPECT_TRUE(capture->lines.empty());
    }

    // The rewrite fails (file size limit): the list stays cleared and the
    // reused "remove open" text is logged.
    WriteAll(pid_file, "1\n2\n");
    auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
    rlimit previous{};
    getrlimit(RLIMIT_FSIZE, &previous);
    const auto previous_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit none = previous;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_FSIZE, &none);
    ftrace.event_filter_rmv_pid(2);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previous_handler);
    EXPECT_EQ(ReadAll(pid_file), "");

    // Without the file: the removal's own open text; cleaning does nothing.
    fs::remove(pid_file);
    ftrace.event_filter_rmv_pid(2);
    fs::remove_all(tracing.dir);
    ftrace.event_filter_clean_all();
    capture->Release();
    EXPECT_FALSE(fs::exists(tracing.dir));
    EXPECT_EQ(Lines(*capture, "ftrace.cpp"),
              (std::vector<Line>{{"Ftrace::remove open file {" + pid_file + "} err", 3},
                                 {"Ftrace::event_filter_rmv_pid open file {" + pid_file + "} err", 3}}));
}
