// Against a temporary tracing directory holding the committed formats, so that
// every byte written can be read back: the lazy format catalogue, the
// control-file writes with their log lines and standard-error texts, and the
// record views and message layout, checked against libtraceevent's own
// readers.

#include <event-parse.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <trace-seq.h>

#include <csignal>
#include <cstring>
#include <tuple>

#include "FtraceEventLayout.h"
#include "FtraceMessage.h"
#include "TestSupport.h"
#include "ftrace.h"

using namespace test_support;
using Lines = std::vector<std::string>;

TEST(FtraceCatalogueTest, LoadsFormatsLazilyAndReportsBadOnesOnStandardError) {
    TempTracingDir tracing("catalogue");
    const std::string dir = tracing.Instance("catalogue");
    WriteAll(dir + "/events/bad/garbage/format", "this is not a format\n");
    // No own fields, and a NUL byte after which nothing is read.
    const std::string exec = ReadAll(dir + "/events/sched/sched_process_exec/format");
    std::string bare = exec.substr(0, exec.find("\n\n") + 2) + "print fmt: \"x\"\n";
    bare.replace(bare.find("sched_process_exec"), 18, "bare");
    WriteAll(dir + "/events/sched/bare/format", bare + std::string(1, '\0') + "name: other\nID: 1\n");
    Ftrace ftrace("catalogue");

    struct Row {
        std::string system, event, error;  // error: how the one line on standard error starts
    } rows[] = {
        {"sched", "sched_switch", ""},
        {"sched", "bare", ""},
        {"bad", "missing", "Failed to read format (or it was empty)\n"},
        {"bad", "garbage", "Failed to parse format: "},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.system + ":" + row.event);
        for (int attempt = 0; attempt < 2; ++attempt) {  // failures are not remembered
            testing::internal::CaptureStderr();
            const bool loaded = bool(ftrace.get_event(row.system, row.event));
            const std::string error = testing::internal::GetCapturedStderr();
            EXPECT_EQ(loaded, row.error.empty());
            EXPECT_EQ(error.substr(0, row.error.size()), row.error);
            EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), row.error.empty() ? 0 : 1) << error;
        }
    }
    EXPECT_EQ(ftrace.read_ftrace_format("sched", "bare"), bare);

    // Loaded events are answered from the catalogue, by name or by id, without the file.
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    fs::remove(dir + "/events/sched/sched_switch/format");
    EXPECT_EQ(ftrace.get_event("sched", "sched_switch").get(), sw.get());
    EXPECT_EQ(ftrace.get_event(sw.id()).get(), sw.get());
    EXPECT_EQ(ftrace.events_count(), 2);

    // Fields: the common ones, then the own ones; without own fields, one empty position.
    const auto field_names = [](const FtraceEvent& event) {
        Lines names;
        for (FtraceField field : FtraceEvent::FtraceEventFields(event)) names.push_back(field ? field.name() : "<none>");
        return names;
    };
    Lines names{"common_type", "common_flags", "common_preempt_count", "common_pid", "<none>"};
    EXPECT_EQ(field_names(ftrace.get_event("sched", "bare")), names);
    EXPECT_FALSE(ftrace.get_event("sched", "bare").field("x"));
    names.pop_back();
    for (const char* own : {"prev_comm", "prev_pid", "prev_prio", "prev_state", "next_comm", "next_pid", "next_prio"})
        names.push_back(own);
    EXPECT_EQ(field_names(sw), names);
}

TEST(FtraceControlTest, WritesControlFilesExactlyAndLogsFailures) {
    TempTracingDir tracing("control");
    const std::string dir = tracing.Instance("control"), events = dir + "/events/", pids = dir + "/set_event_pid";
    fs::remove(events + "irq/irq_handler_entry/enable");
    fs::remove(events + "timer/hrtimer_start/enable");
    fs::create_symlink("/dev/full", events + "timer/hrtimer_start/enable");
    Ftrace ftrace("control");
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    auto log = CaptureFtraceLog();
    ftrace.add(sw);
    ftrace.add(sw);  // appended, never truncated: other events stay enabled
    EXPECT_EQ(ReadAll(dir + "/set_event"), "sched:sched_switch\nsched:sched_switch\n");
    ftrace.remove(sw);
    EXPECT_EQ(ReadAll(events + "sched/sched_switch/enable"), "0");
    ftrace.event_filter_add_pid(42);
    ftrace.event_filter_add_pid(-7);
    EXPECT_EQ(ReadAll(pids), "42\n-7\n");
    ftrace.event_filter_clean_all();
    EXPECT_EQ(ReadAll(pids), "");
    // Removing a pid rewrites the kept lines: the list before, the pid, the list after.
    const std::tuple<std::string, int, std::string> rows[] = {
        {"1\n2\n3\n", 2, "1\n3"}, {"5\n5\n6\n", 5, "6"}, {"5\n", 5, ""}, {"1\n\n2\n", 2, "1\n"},
        {" 7\n07\n7\n", 7, " 7\n07"}, {"1\n2\n", 9, "1\n2"}, {"", 3, ""}, {"8", 8, ""}, {"-4\n4\n", -4, "4"},
    };
    for (const auto& [before, pid, after] : rows) {
        WriteAll(pids, before);
        ftrace.event_filter_rmv_pid(pid);
        EXPECT_EQ(ReadAll(pids), after) << before << " - " << pid;
    }
    EXPECT_EQ(log->lines(true), Lines{});

    // The rewrite fails (file size limit): the list stays cleared, and the
    // text of remove()'s failed open is logged.
    WriteAll(pids, "1\n2\n");
    rlimit previous{};
    getrlimit(RLIMIT_FSIZE, &previous);
    const rlimit limited{0, previous.rlim_max};
    const auto previous_handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limited);
    ftrace.event_filter_rmv_pid(2);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previous_handler);
    EXPECT_EQ(ReadAll(pids), "");

    // Other failures are logged too, and no control file is ever made.
    ftrace.remove(ftrace.get_event("irq", "irq_handler_entry"));  // no enable file
    ftrace.remove(ftrace.get_event("timer", "hrtimer_start"));    // the write fails
    ftrace.append_file(dir + "/nope", "x");
    ftrace.append_file("/dev/full", "x");
    fs::remove(pids);
    ftrace.event_filter_rmv_pid(2);
    fs::remove_all(dir);
    ftrace.event_filter_clean_all();
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_EQ(log->lines(), (Lines{"3 Ftrace::remove open file {" + pids + "} err",
                                 "3 Ftrace::remove open file {" + events + "irq/irq_handler_entry/enable} err",
                                 "3 Ftrace::remove write file {" + events + "timer/hrtimer_start/enable} err",
                                 "3 Ftrace::append open file {" + dir + "/nope} err",
                                 "3 Ftrace::append write file {/dev/full} err",
                                 "3 Ftrace::event_filter_rmv_pid open file {" + pids + "} err"}));
    // The message keeps a bare pointer to the base name: it must point into the caller's __FILE__.
    EXPECT_STREQ(log->messages().at(0).getSourceFile(), "ftrace.cpp");
}

// Every committed format, a record filled with a pattern (and a valid location
// word for each __data_loc field, its data past byte 255): every field decodes
// as libtraceevent reads it, through the views and into the message, also when
// the record carries no size, and reads as nothing once the record ends before
// the field's last byte.
TEST(FtraceViewsTest, DecodingMatchesLibtraceeventForEveryFixture) {
    TempTracingDir tracing("views");
    Ftrace ftrace("views");
    for (const auto& [system, name] : TempTracingDir::Fixtures()) {
        SCOPED_TRACE(system + ":" + name);
        const FtraceEvent event = ftrace.get_event(system, name);
        ASSERT_TRUE(event);
        const Engine::FtraceEventLayout layout(event);

        size_t end = 0, fields = 0;
        for (FtraceField field : FtraceEvent::FtraceEventFields(event))
            end = std::max(end, static_cast<size_t>(field.offset() + field.size()));
        std::vector<unsigned char> data(end + 512);
        // NUL bytes sprinkled in: strings are taken whole, never cut at a terminator.
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i % 7 == 3 ? 0 : i * 37 + 11);
        const uint16_t type = event.id();
        std::memcpy(data.data(), &type, 2);
        uint32_t next = end + 256, length = 7;
        for (FtraceField field : FtraceEvent::FtraceEventFields(event)) {
            if (!field.is_dynamic()) continue;
            const uint32_t location = (length << 16) | next;
            std::memcpy(&data[field.offset()], &location, 4);
            next += length++;
        }
        tep_record record{};
        record.data = data.data();
        record.size = data.size();
        record.ts = 0x123456789;
        const FtraceRecord decoded(event, &record);
        const auto message = layout.make_message(decoded);
        EXPECT_EQ(message->name() + " " + std::to_string(message->get_number("timestamp")),
                  system + ":" + name + " " + std::to_string(record.ts));

        trace_seq seq;
        trace_seq_init(&seq);
        for (FtraceField field : FtraceEvent::FtraceEventFields(event)) {
            SCOPED_TRACE(field.name());
            ++fields;
            const auto view = [&] { return field.is_array() ? decoded.get_string(field) : std::to_string(decoded.get(field)); };
            const auto entry = [&] {
                const auto m = layout.make_message(decoded);
                return field.is_array() ? m->get_string(field.name()) : std::to_string(m->get_number(field.name()));
            };
            std::string expected;
            if (field.is_array()) {
                int size = 0;
                const void* raw = tep_get_field_raw(&seq, event.get(), field.name().c_str(), &record, &size, 0);
                ASSERT_NE(raw, nullptr);
                expected.assign(static_cast<const char*>(raw), size);
            } else {
                unsigned long long number = 0;
                if (tep_read_number_field(field.get(), data.data(), &number) != 0) number = 0;
                expected = std::to_string(number);
            }
            // The whole record; one built without a size (0), read as laid out;
            // one that ends right after what the field needs (a string's data
            // included), and one byte short of that, where it reads as nothing.
            uint32_t needed = field.offset() + field.size(), location = 0;
            if (field.is_dynamic()) {
                std::memcpy(&location, &data[field.offset()], 4);
                needed = (location & 0xffff) + (location >> 16);
            }
            for (const uint32_t size : {static_cast<uint32_t>(data.size()), 0u, needed, needed - 1}) {
                record.size = static_cast<int>(size);
                const std::string want = size != needed - 1 ? expected : field.is_array() ? "" : "0";
                EXPECT_EQ(view(), want) << "record size " << size;
                EXPECT_EQ(entry(), want) << "record size " << size;
            }
            record.size = data.size();
        }
        EXPECT_EQ(message->numbers().size() + message->strings().size(), fields + 1);
        trace_seq_destroy(&seq);
    }
    EXPECT_GE(TempTracingDir::Fixtures().size(), 12u);
}
