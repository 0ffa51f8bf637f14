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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "FileDescriptor.h"
#include "FtraceMessage.h"
#include "FtracePerCPUReader.h"
#include "FtraceTask.h"
#include "FuzzTracingDir.h"
#include "RingBufferPage.h"

namespace {

constexpr size_t kPageHeader = 16;
constexpr size_t kMissedCount = 8;

class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Done() const { return m_at >= m_size; }
    uint8_t Byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    uint64_t Number(size_t bytes) {
        uint64_t value = 0;
        for (size_t i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(Byte()) << (8 * i);
        return value;
    }
    std::vector<uint8_t> Bytes(size_t length) {
        std::vector<uint8_t> bytes;
        while (bytes.size() < length && !Done()) bytes.push_back(Byte());
        bytes.resize(length, 0);
        return bytes;
    }
    std::vector<uint8_t> Rest(size_t most) {
        std::vector<uint8_t> bytes;
        while (bytes.size() < most && !Done()) bytes.push_back(Byte());
        return bytes;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

[[noreturn]] void Wrong(const std::string& what) {
    std::fprintf(stderr, "record path: %s\n", what.c_str());
    std::abort();
}

// The field's value as the record's bytes hold it, host order; 0 when its
// bytes are not all inside the record or its size is not 1, 2, 4 or 8.
uint64_t ExpectedNumber(const uint8_t* data, uint64_t record_size, uint64_t offset, uint64_t size) {
    if (offset + size > record_size) return 0;
    uint64_t value = 0;
    switch (size) {
        case 1: { uint8_t v; std::memcpy(&v, data + offset, 1); value = v; break; }
        case 2: { uint16_t v; std::memcpy(&v, data + offset, 2); value = v; break; }
        case 4: { uint32_t v; std::memcpy(&v, data + offset, 4); value = v; break; }
        case 8: { std::memcpy(&value, data + offset, 8); break; }
        default: break;
    }
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
        if (!task->ftrace().tracefs().IsCreated()) Wrong("ZEV was not created in the private directory");
        dir.Populate("ZEV");
        for (const auto& [system, name] : dir.Fixtures()) {
            const FtraceEvent event = task->ftrace().get_event(system, name);
            if (!event) Wrong("cannot load " + system + ":" + name);
            events.push_back(event);
            size_t end = 0;
            for (const FtraceField field : FtraceEvent::FtraceEventFields(event))
                end = std::max(end, static_cast<size_t>(field.offset() + field.size()));
            sizes.push_back(end);
        }
        int ends[2];
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) Wrong("pipe2");
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

struct Walk {
    Fixture* fixture;
    size_t records = 0;
};

void CheckRecord(FtraceRecord& record, void* context) {
    Walk& walk = *static_cast<Walk*>(context);
    ++walk.records;
    const FtraceEvent& event = record.event();
    const tep_record* raw = record.record();
    const auto* data = static_cast<const uint8_t*>(raw->data);
    if (!event || event.get() != walk.fixture->task->ftrace().get_event(event.id()).get())
        Wrong("record handed over with an event that is not in the catalogue");

    const std::unique_ptr<Engine::FtraceMessage> message = walk.fixture->task->create_ftrace_message(record);
    if (message->name() != event.name()) Wrong("message named " + message->name() + " for " + event.name());
    const auto numbers = message->numbers();
    const auto strings = message->strings();
    if (numbers.count("timestamp") == 0 || numbers.at("timestamp") != raw->ts) Wrong("timestamp of " + event.name());

    size_t fields = 0;
    for (const FtraceField field : FtraceEvent::FtraceEventFields(event)) {
        ++fields;
        const std::string name = field.name();
        if (field.is_array()) {
            const auto it = strings.find(name);
            if (it == strings.end()) Wrong(event.name() + ": no string " + name);
            if (it->second != ExpectedString(data, raw->size, field))
                Wrong(event.name() + ": string " + name + " is not the record's bytes");
        } else {
            const auto it = numbers.find(name);
            if (it == numbers.end()) Wrong(event.name() + ": no number " + name);
            if (it->second != ExpectedNumber(data, raw->size, static_cast<uint32_t>(field.offset()),
                                             static_cast<uint32_t>(field.size())))
                Wrong(event.name() + ": number " + name + " is not the record's bytes");
        }
    }
    if (numbers.size() + strings.size() != fields + 1) Wrong(event.name() + ": entries other than its fields");
}

// Records of the committed events (and some that are not) up to `room` bytes.
void BuildRecords(Input& in, const Fixture& fixture, RingBufferPage& page, size_t room) {
    while (!in.Done()) {
        RingBufferPage next = page;
        const uint8_t pick = in.Byte();
        const size_t kind = pick % 16;
        const uint32_t delta = in.Byte();
        if (kind < fixture.events.size()) {
            const size_t length = (pick & 0x10) ? fixture.sizes[kind] : in.Byte();
            std::vector<uint8_t> payload = in.Bytes(length);
            const uint16_t type = static_cast<uint16_t>(fixture.events[kind].id());
            if (!payload.empty()) std::memcpy(payload.data(), &type, std::min<size_t>(2, payload.size()));
            next.event(delta, payload);
        } else if (kind == 13) {
            next.time_extend(in.Number(5));
        } else if (kind == 14) {
            next.word(static_cast<uint32_t>(in.Number(4)));  // whatever a header word may hold
        } else {
            std::vector<uint8_t> payload = in.Bytes(4 + in.Byte() % 64);
            const uint16_t unknown = static_cast<uint16_t>(in.Number(2));
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
    Input in(data, size);
    const uint8_t layout = in.Byte();
    const bool missed = layout & 2;
    RingBufferPage page(in.Number(8), missed ? in.Number(4) + 1 : 0);
    const size_t room = page_size - kPageHeader - (missed ? kMissedCount : 0);
    if (layout & 1) {
        page.records = in.Rest(room);
    } else {
        BuildRecords(in, fixture, page, room);
    }

    const std::vector<uint8_t> bytes = page.bytes(layout & 4 ? page_size : 0);  // a whole page or a short read
    if (write(fixture.writer.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        Wrong("pipe write");
    Walk walk{&fixture};
    int result;
    while ((result = fixture.reader->read_once(fixture.task->ftrace(), CheckRecord, &walk)) == 2) {
    }
    if (result != 1) Wrong("reading the pipe failed");
    return 0;
}
