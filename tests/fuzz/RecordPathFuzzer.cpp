// libFuzzer target for the record path: a ring-buffer page with a well-formed
// page header and random record bytes is read through a pipe by
// FtracePerCPUReader::read_once, decoded with the committed formats, and every
// record becomes a message through FtraceTask::create_ftrace_message.
//
// Each message must carry the event's name, the record's time stamp and every
// field exactly as the record's own bytes hold it. A field whose bytes (or,
// for a __data_loc field, the bytes its location word points at) do not lie
// inside the record reads as 0 or "": a corrupt record never makes the module
// read outside it.
//
// The first input byte picks the layout: odd, the record area is the raw
// input; even, the input is cut into records of the committed events (their
// type id filled in, their sizes right or random), records of unknown ids,
// time extends and stray words.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "FileDescriptor.h"
#include "FtraceMessage.h"
#include "FtracePerCPUReader.h"
#include "FtraceTask.h"
#include "FuzzInput.h"
#include "FuzzTracingDir.h"
#include "RingBufferPage.h"

namespace {

// The field's value as the record's bytes hold it (on this little-endian
// host, as the page builder assumes); 0 when its bytes are not all inside the
// record or its size is not 1, 2, 4 or 8.
uint64_t ExpectedNumber(const uint8_t* data, uint64_t record_size, uint64_t offset, uint64_t size) {
    uint64_t value = 0;
    if (offset + size <= record_size && (size == 1 || size == 2 || size == 4 || size == 8))
        std::memcpy(&value, data + offset, size);
    return value;
}

std::string ExpectedString(const uint8_t* data, uint64_t record_size, const FtraceField& field) {
    uint64_t start = static_cast<uint32_t>(field.offset());
    uint64_t length = static_cast<uint32_t>(field.size());
    if (field.is_dynamic()) {
        if (start + length > record_size) return std::string();
        const uint64_t location = ExpectedNumber(data, record_size, start, length);
        start = location & 0xffff;
        length = location >> 16;
    }
    if (length == 0 || start + length > record_size) return std::string();
    return std::string(reinterpret_cast<const char*>(data) + start, length);
}

struct Fixture {
    Fixture() {
        std::cerr.setstate(std::ios::badbit);
        task = std::make_unique<Engine::FtraceTask>();
        FuzzCheck(task->ftrace().tracefs().IsCreated(), "ZEV was not created in the private directory");
        dir.Populate("ZEV");
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
    ~Fixture() {
        reader.reset();
        dir.Empty("ZEV");
        task.reset();
    }

    FuzzTracingDir dir;
    std::unique_ptr<Engine::FtraceTask> task;
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
    const tep_record* raw = record.record();
    const auto* data = static_cast<const uint8_t*>(raw->data);
    FuzzCheck(event && event.get() == task.ftrace().get_event(event.id()).get(),
          "record handed over with an event that is not in the catalogue");

    const std::unique_ptr<Engine::FtraceMessage> message = task.create_ftrace_message(record);
    FuzzCheck(message->name() == event.name(), "message named " + message->name() + " for " + event.name());
    const auto numbers = message->numbers();
    const auto strings = message->strings();
    FuzzCheck(numbers.count("timestamp") != 0 && numbers.at("timestamp") == raw->ts, "timestamp of " + event.name());
    size_t fields = 0;
    for (const FtraceField field : FtraceEvent::FtraceEventFields(event)) {
        ++fields;
        const std::string what = event.name() + ": field " + field.name();
        if (field.is_array()) {
            const auto it = strings.find(field.name());
            FuzzCheck(it != strings.end() && it->second == ExpectedString(data, raw->size, field),
                  what + " is not the record's bytes");
        } else {
            const auto it = numbers.find(field.name());
            FuzzCheck(it != numbers.end() && it->second == ExpectedNumber(data, raw->size,
                                                                      static_cast<uint32_t>(field.offset()),
                                                                      static_cast<uint32_t>(field.size())),
                  what + " is not the record's bytes");
        }
    }
    FuzzCheck(numbers.size() + strings.size() == fields + 1, event.name() + ": entries other than its fields");
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
    int result;
    while ((result = fixture.reader->read_once(fixture.task->ftrace(), CheckRecord, nullptr)) == 2) {
    }
    FuzzCheck(result == 1, "reading the pipe failed");
    return 0;
}
