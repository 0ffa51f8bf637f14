// The event, field and record views over formats parsed from real format
// files, and the record decoding checked against libtraceevent's own readers.

#include <event-parse.h>
#include <gtest/gtest.h>
#include <trace-seq.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "CatalogueTestSupport.h"
#include "ftrace.h"

using namespace catalogue_test;

namespace {

std::vector<std::string> FieldNames(const FtraceEvent& event) {
    std::vector<std::string> names;
    for (FtraceField field : FtraceEvent::FtraceEventFields(event)) names.push_back(field ? field.name() : "<none>");
    return names;
}

std::string FormatText(const std::string& name, int id, const std::string& own_fields) {
    return "name: " + name + "\nID: " + std::to_string(id) +
           "\nformat:\n"
           "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
           "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
           "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
           "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n" +
           own_fields + "\nprint fmt: \"x\"\n";
}

class FtraceViewsTest : public ::testing::Test {
protected:
    TempTracingDir tracing{"views"};
    Ftrace ftrace{"views"};
};

}  // namespace

TEST_F(FtraceViewsTest, FieldsIterateCommonThenOwnAndDescribeThemselves) {
    WriteAll(tracing.dir + "/events/test/dup/format",
             FormatText("dup", 9001, "\tfield:int common_pid;\toffset:8;\tsize:4;\tsigned:1;\n"));
    WriteAll(tracing.dir + "/events/test/bare/format", FormatText("bare", 9002, ""));
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    const FtraceEvent exec = ftrace.get_event("sched", "sched_process_exec");
    const FtraceEvent dup = ftrace.get_event("test", "dup");
    const FtraceEvent bare = ftrace.get_event("test", "bare");
    ASSERT_TRUE(sw && exec && dup && bare);

    const std::vector<std::string> common{"common_type", "common_flags", "common_preempt_count", "common_pid"};
    auto with = [&](std::vector<std::string> own) {
        own.insert(own.begin(), common.begin(), common.end());
        return own;
    };
    EXPECT_EQ(FieldNames(sw), with({"prev_comm", "prev_pid", "prev_prio", "prev_state", "next_comm", "next_pid",
                                    "next_prio"}));
    EXPECT_EQ(FieldNames(exec), with({"filename", "pid", "old_pid"}));
    // No own fields: one empty position after the common ones, then the end.
    EXPECT_EQ(FieldNames(bare), with({"<none>"}));
    EXPECT_FALSE(bare.field("nothing"));
    // The common field wins over an own field of the same name.
    EXPECT_EQ(dup.field("common_pid").offset(), 4);
    EXPECT_FALSE(sw.field("Prev_pid"));

    // Iterators compare the event object's address, the phase and the index.
    const FtraceEvent::FtraceEventFields fields(sw);
    auto it = fields.begin();
    for (int i = 0; i < 11; ++i) ++it;
    EXPECT_TRUE(it == fields.end());
    const FtraceEvent copy = sw;
    EXPECT_TRUE(FtraceEvent::FtraceEventFields(copy).begin() != fields.begin());

    struct Row {
        FtraceField field;
        const char* type;
        int offset, size;
        bool array, dynamic;
    } rows[] = {
        {sw.field("prev_state"), "long", 32, 8, false, false},
        {sw.field("prev_comm"), "char[16]", 8, 16, true, false},
        {exec.field("filename"), "__data_loc char[]", 8, 4, true, true},
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(row.field);
        SCOPED_TRACE(row.field.name());
        EXPECT_EQ(row.field.type(), row.type);
        EXPECT_EQ(row.field.alias(), row.field.name());
        EXPECT_EQ(row.field.offset(), row.offset);
        EXPECT_EQ(row.field.size(), row.size);
        EXPECT_EQ(row.field.is_array(), row.array);
        EXPECT_EQ(row.field.is_dynamic(), row.dynamic);
    }
}

TEST_F(FtraceViewsTest, RecordReadsHostOrderNumbersAndPrintsItself) {
    const FtraceEvent sw = ftrace.get_event("sched", "sched_switch");
    const FtraceEvent exec = ftrace.get_event("sched", "sched_process_exec");
    ASSERT_TRUE(sw && exec);

    std::vector<unsigned char> data(64, 0);
    const unsigned char head[] = {0x34, 0x12, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xff};
    std::memcpy(data.data(), head, sizeof head);
    tep_record record{};
    record.data = data.data();
    record.size = static_cast<int>(data.size());
    record.ts = 123456789;
    record.cpu = 3;
    const FtraceRecord raw(sw, &record);
    struct NumberRow {
        int offset, size;
        uint64_t expected;
    } numbers[] = {{0, 1, 0x34},       {0, 2, 4660},        {0, 3, 0},       {0, 4, 0x78561234},
                   {0, 8, 0xffdebc9a78561234ull}, {1, 2, 0x5612}, {0, 0, 0}, {0, 16, 0}};
    for (const NumberRow& row : numbers)
        EXPECT_EQ(raw.get_number(row.offset, row.size), row.expected) << row.offset << "/" << row.size;
    EXPECT_EQ(raw.timestamp(), 123456789u);
    EXPECT_EQ(raw.cpu(), 3);

    // A location word of length 0 and a scalar both read as "".
    const uint32_t empty_location = 32u, common_pid = 4242;
    std::memcpy(&data[8], &empty_location, 4);
    std::memcpy(&data[4], &common_pid, 4);
    const FtraceRecord exec_record(exec, &record);
    EXPECT_EQ(exec_record.get_string("filename"), "");
    EXPECT_EQ(exec_record.get_string("pid"), "");
    EXPECT_EQ(exec_record.pid(), 4242u);
    EXPECT_EQ(exec_record.event_name(), "sched:sched_process_exec");

    std::ostringstream field, event, invalid, rec, address;
    field << sw.field("common_pid");
    event << sw;
    invalid << FtraceEvent();
    rec << exec_record;
    address << "sched:sched_process_exec (365): " << static_cast<const void*>(&record);
    EXPECT_EQ(field.str(), "  common_pid : int");
    EXPECT_EQ(event.str(), "sched:sched_switch (372)");
    EXPECT_EQ(invalid.str(), "(invalid)");
    EXPECT_EQ(rec.str(), address.str());
}

// Every committed format, a record filled with a pattern (and a valid location
// word for each __data_loc field): every field decodes as libtraceevent reads it.
TEST_F(FtraceViewsTest, DecodingMatchesLibtraceeventForEveryFixture) {
    int formats = 0;
    for (const auto& entry : fs::recursive_directory_iterator(std::string(FTRACE_FIXTURES_ROOT) + "/events")) {
        if (entry.path().filename() != "format") continue;
        const std::string system = entry.path().parent_path().parent_path().filename();
        const std::string name = entry.path().parent_path().filename();
        SCOPED_TRACE(system + ":" + name);
        const FtraceEvent event = ftrace.get_event(system, name);
        ASSERT_TRUE(event);
        ++formats;

        size_t end = 0;
        for (FtraceField field : FtraceEvent::FtraceEventFields(event))
            end = std::max(end, static_cast<size_t>(field.offset() + field.size()));
        std::vector<unsigned char> data(end + 256);
        // NUL bytes sprinkled in: strings are taken whole, never cut at a terminator.
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i % 7 == 3 ? 0 : i * 37 + 11);
        const uint16_t type = event.id();
        std::memcpy(data.data(), &type, 2);
        uint32_t next = end, length = 7;
        for (FtraceField field : FtraceEvent::FtraceEventFields(event)) {
            if (!field.is_dynamic()) continue;
            const uint32_t location = (length << 16) | next;
            std::memcpy(&data[field.offset()], &location, 4);
            next += length++;
        }
        tep_record record{};
        record.data = data.data();
        record.size = data.size();
        const FtraceRecord decoded(event, &record);
        EXPECT_EQ(ftrace.event_id(&record), event.id());
        EXPECT_EQ(ftrace.get_event(ftrace.event_id(&record)).get(), event.get());

        trace_seq seq;
        trace_seq_init(&seq);
        for (FtraceField field : FtraceEvent::FtraceEventFields(event)) {
            SCOPED_TRACE(field.name());
            if (field.is_array()) {
                int size = 0;
                const void* raw = tep_get_field_raw(&seq, event.get(), field.name().c_str(), &record, &size, 0);
                ASSERT_NE(raw, nullptr);
                EXPECT_EQ(decoded.get_string(field), std::string(static_cast<const char*>(raw), size));
                if (field.is_dynamic()) {
                    EXPECT_GE(size, 7);
                }
            } else {
                unsigned long long expected = 0;
                if (tep_read_number_field(field.get(), data.data(), &expected) != 0) expected = 0;
                EXPECT_EQ(decoded.get(field), expected);
            }
        }
        trace_seq_destroy(&seq);
    }
    EXPECT_GE(formats, 12);
}
