// libFuzzer target for the record path: a ring-buffer page with a well-formed
// page header and random record bytes is read through a pipe by
// FtracePerCPUReader::read_once, decoded with the committed formats, and every
// record becomes a message through FtraceTask::create_ftrace_message.
//
// Each message must carry the event's name, the record's time stamp and every
// field as the record views read it (which the catalogue tests hold to
// libtraceevent's readers, a field outside the record reading as 0 or ""),
// and the sanitizers must see no access outside the page.
//
// The first input byte picks the layout: odd, the record area is the raw
// input; even, the input is cut into records of the committed events (their
// type id filled in, their sizes right or random), records of unknown ids,
// time extends and stray words.

#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include "FileDescriptor.h"
#include "FtraceMessage.h"
#include "FtracePerCPUReader.h"
#include "FtraceTask.h"
#include "FuzzInput.h"
#include "RingBufferPage.h"
#include "TestSupport.h"

namespace {

struct Fixture {
    Fixture() {
        std::cerr.setstate(std::ios::badbit);
        for (const auto& [system, name] : dir.Fixtures()) {
            const FtraceEvent event = task->ftrace().get_event(system, name);
            FuzzCheck(static_cast<bool>(event), "loading " + system + ":" + name);
            events.push_back(event);
            size_t end = 0;
            for (const FtraceField field : FtraceEvent::FtraceEventFields(event))
                end = std::max(end, static_cast<size_t>(field.offset() + field.size()));
            sizes.push_back(end);
        }
        int ends[2];
        FuzzCheck(pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0, "pipe2");
        writer = FileDescriptor(ends[1]);
        reader = std::make_unique<FtracePerCPUReader>(task->ftrace(), FileDescriptor(ends[0]), 1);
    }

    test_support::TempTracingDir dir{"ZEV"};  // made before the task, which adopts it
    std::unique_ptr<Engine::FtraceTask> task = std::make_unique<Engine::FtraceTask>();
    std::vector<FtraceEvent> events;
    std::vector<size_t> sizes;  // where each event's last fixed field ends
    FileDescriptor writer;
    std::unique_ptr<FtracePerCPUReader> reader;
};

Fixture& Shared() {
    static Fixture fixture;
    return fixture;
}

void CheckRecord(FtraceRecord& record, void*) {
    Engine::FtraceTask& task = *Shared().task;
    const FtraceEvent& event = record.event();
    FuzzCheck(event && event.get() == task.ftrace().get_event(event.id()).get(),
              "record handed over with an event that is not in the catalogue");
    const std::unique_ptr<Engine::FtraceMessage> message = task.create_ftrace_message(record);
    FuzzCheck(message->name() == event.name(), "message named " + message->name() + " for " + event.name());
    FuzzCheck(message->get_number("timestamp") == record.timestamp(), "timestamp of " + event.name());
    // One entry for each field (names are unique) besides the time stamp.
    size_t fields = 0;
    for (const FtraceField field : FtraceEvent::FtraceEventFields(event)) {
        ++fields;
        const bool same = field.is_array() ? message->get_string(field.name()) == record.get_string(field)
                                           : message->get_number(field.name()) == record.get(field);
        FuzzCheck(same, event.name() + ": field " + field.name() + " is not what the record holds");
    }
    FuzzCheck(message->numbers().size() + message->strings().size() == fields + 1, event.name() + ": other entries");
}

std::vector<uint8_t> Padded(FuzzInput& in, size_t length) {
    std::vector<uint8_t> bytes = in.Take(length);
    bytes.resize(length, 0);
    return bytes;
}

// Records of the committed events (and some that are not) up to `room` bytes.
void BuildRecords(FuzzInput& in, const Fixture& fixture, RingBufferPage& page, size_t room) {
    while (!in.Done()) {
        RingBufferPage next = page;
        const uint8_t pick = in.Byte();
        const size_t kind = pick % 16;
        const uint32_t delta = in.Byte();
        if (kind < fixture.events.size()) {
            std::vector<uint8_t> payload = Padded(in, (pick & 0x10) ? fixture.sizes[kind] : in.Byte());
            const auto type = static_cast<uint16_t>(fixture.events[kind].id());
            if (!payload.empty()) std::memcpy(payload.data(), &type, std::min<size_t>(2, payload.size()));
            next.event(delta, payload);
        } else if (kind == 13) {
            next.time_extend(in.Number(5));
        } else if (kind == 14) {
            next.word(static_cast<uint32_t>(in.Number(4)));  // whatever a header word may hold
        } else {
            std::vector<uint8_t> payload = Padded(in, 4 + in.Byte() % 64);
            const auto unknown = static_cast<uint16_t>(in.Number(2));
            std::memcpy(payload.data(), &unknown, 2);
            next.event(delta, payload);
        }
        if (next.records.size() > room) break;
        page = std::move(next);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fixture& fixture = Shared();
    const size_t page_size = static_cast<size_t>(getpagesize());
    FuzzInput in(data, size);
    const uint8_t layout = in.Byte();
    const bool missed = layout & 2;
    RingBufferPage page(in.Number(8), missed ? in.Number(4) + 1 : 0);
    // Page header: time stamp and commit word; the missed-events count follows the data.
    const size_t room = page_size - 16 - (missed ? 8 : 0);
    if (layout & 1) {
        page.records = in.Take(room);
    } else {
        BuildRecords(in, fixture, page, room);
    }
    const std::vector<uint8_t> bytes = page.bytes(layout & 4 ? page_size : 0);  // a whole page or a short read
    FuzzCheck(write(fixture.writer.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "pipe write");
    int result = 2;  // a page was read: read on until the pipe is empty
    while (result == 2) result = fixture.reader->read_once(fixture.task->ftrace(), CheckRecord, nullptr);
    FuzzCheck(result == 1, "reading the pipe failed");
    return 0;
}
