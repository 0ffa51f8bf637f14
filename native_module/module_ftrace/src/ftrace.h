#pragma once
// The module's handle on kernel tracing (Ftrace) and the light views over
// libtraceevent's parsed formats and raw records (FtraceEvent, FtraceField,
// FtraceRecord).

#include <event-parse.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

#include "TraceFS.h"

// One field of an event format. A null view means "no such field".
class FtraceField {
public:
    explicit FtraceField(tep_format_field* field = nullptr) : m_field(field) {}

    std::string name() const;
    std::string type() const;
    std::string alias() const;
    int size() const;
    int offset() const;
    bool is_array() const;
    bool is_dynamic() const;

    tep_format_field* get() const { return m_field; }
    explicit operator bool() const { return m_field != nullptr; }

private:
    tep_format_field* m_field;
};

std::ostream& operator<<(std::ostream& os, const FtraceField& field);

// One event format, owned by the parser handle of an Ftrace. A null view means
// "no such event".
class FtraceEvent {
public:
    explicit FtraceEvent(tep_event* event = nullptr) : m_event(event) {}

    std::string system() const;
    std::string event_name() const;
    std::string name() const;  // system ":" event name
    void write_full_name(std::ostream& os) const;
    // The first field (common fields first) named exactly `name`, or a null field.
    FtraceField field(const std::string& name) const;
    int id() const;

    tep_event* get() const { return m_event; }
    explicit operator bool() const { return m_event != nullptr; }

    class FtraceFieldIterator {
    public:
        FtraceFieldIterator(const FtraceEvent* event, tep_format_field* current, int32_t phase, int32_t index)
            : event(event), current(current), phase(phase), index(index) {}
        FtraceField operator*() const { return FtraceField(current); }
        FtraceFieldIterator& operator++();
        bool operator==(const FtraceFieldIterator& other) const;
        bool operator!=(const FtraceFieldIterator& other) const { return !(*this == other); }

    private:
        const FtraceEvent* event;
        tep_format_field* current;
        int32_t phase;  // 0 common fields, 1 own fields, 2 past the end
        int32_t index;  // position within the phase
    };

    // All common fields, then the event's own fields.
    class FtraceEventFields {
    public:
        explicit FtraceEventFields(const FtraceEvent& event) : m_event(&event) {}
        FtraceFieldIterator begin() const;
        FtraceFieldIterator end() const;

    private:
        const FtraceEvent* m_event;
    };

private:
    tep_event* m_event;
};

std::ostream& operator<<(std::ostream& os, const FtraceEvent& event);

// One raw record of an event. Refers to the caller's event object and to the
// record's data in the reader's page buffer: both must outlive it.
class FtraceRecord {
public:
    FtraceRecord(const FtraceEvent& event, tep_record* record) : m_event(event), m_record(record) {}

    // Unsigned host-order integer of 1, 2, 4 or 8 bytes at data + offset; other
    // sizes read 0. A record that carries its size (size > 0, as every record
    // the reader hands over does) also reads 0 for bytes not all inside it; one
    // built without a size is read as its caller laid it out. Inline: the
    // ftrace task reads every field of every record through it.
    uint64_t get_number(int offset, int size) const;
    // Where the value of an array field with this offset and size lies: `size`
    // bytes at `offset`, or, for a __data_loc field, what its location word
    // says (offset low 16 bits, length high 16 bits). False when the value is
    // empty or not all inside the record's size (where the record carries one).
    bool get_string_extent(int offset, int size, bool dynamic, uint64_t* start, uint64_t* length) const;
    uint64_t get(const FtraceField& field) const;
    uint64_t get(const std::string& name) const;
    // Array fields only (else ""): the field's bytes as they are, trailing NULs included;
    // a __data_loc field reads its location word (offset low 16 bits, length high 16 bits).
    // A value that does not lie inside the record's size reads as "".
    std::string get_string(const FtraceField& field) const;
    std::string get_string(const std::string& name) const;
    std::string event_name() const;
    uint64_t pid() const;
    int cpu() const;
    uint64_t timestamp() const;

    const FtraceEvent& event() const { return m_event; }
    tep_record* record() const { return m_record; }

private:
    const FtraceEvent& m_event;
    tep_record* m_record;
};

std::ostream& operator<<(std::ostream& os, const FtraceRecord& record);

namespace ftrace_detail {
template <typename T>
uint64_t read_host(const unsigned char* at) {
    T value;
    std::memcpy(&value, at, sizeof value);  // record data need not be aligned
    return value;
}
}  // namespace ftrace_detail

inline uint64_t FtraceRecord::get_number(int offset, int size) const {
    // A corrupt record (or a format that does not match it) must not make us
    // read past the record, which may be the end of the page buffer.
    if (offset < 0 || size <= 0) return 0;
    if (m_record->size > 0 &&
        static_cast<uint64_t>(offset) + static_cast<uint64_t>(size) > static_cast<uint32_t>(m_record->size)) {
        return 0;
    }
    const unsigned char* at = static_cast<const unsigned char*>(m_record->data) + offset;
    switch (size) {
        case 1: return ftrace_detail::read_host<uint8_t>(at);
        case 2: return ftrace_detail::read_host<uint16_t>(at);
        case 4: return ftrace_detail::read_host<uint32_t>(at);
        case 8: return ftrace_detail::read_host<uint64_t>(at);
        default: return 0;
    }
}

inline bool FtraceRecord::get_string_extent(int offset, int size, bool dynamic, uint64_t* start,
                                            uint64_t* length) const {
    *start = static_cast<uint32_t>(offset);
    *length = static_cast<uint32_t>(size);
    if (dynamic) {
        const uint64_t location = get_number(offset, size);
        *start = location & 0xffff;
        *length = location >> 16;
    }
    return *length != 0 && (m_record->size <= 0 || *start + *length <= static_cast<uint32_t>(m_record->size));
}

// The tracefs instance, the libtraceevent parser handle with its plug-ins, and
// the catalogue of event formats loaded so far (lazily, by name). Not
// thread-safe: used from the ftrace task's thread only.
class Ftrace {
public:
    explicit Ftrace(const std::string& name);
    ~Ftrace() = default;
    Ftrace(const Ftrace&) = delete;
    Ftrace& operator=(const Ftrace&) = delete;

    std::string tracing_dir() const;
    std::string tracing_file(const std::string& name) const;

    std::string read_ftrace_format(const std::string& system, const std::string& event);
    FtraceEvent load_event(const std::string& system, const std::string& event);
    FtraceEvent get_event(const std::string& system, const std::string& event);
    FtraceEvent get_event(int id) const;
    int events_count() const;
    bool is_file_bigendian() const;
    int page_size() const;
    int event_id(tep_record* record) const;
    tep_event** list_events() const;

    // Control files of the instance.
    void append_file(const std::string& path, const std::string& text);
    // Replaces a setting: false (and an error line) when it cannot be written.
    bool write_file(const std::string& path, const std::string& text);
    void add(const FtraceEvent& event);
    void remove(const FtraceEvent& event);
    void event_filter_add_pid(const int& pid);
    void event_filter_rmv_pid(const int& pid);
    void event_filter_clean_all();

    const TraceFS& tracefs() const { return m_tracefs; }
    tep_handle* handle() const { return m_handle.get(); }

    struct FtracePluginListDestructor {
        explicit FtracePluginListDestructor(Ftrace& owner) : owner(&owner) {}
        void operator()(tep_plugin_list* list) const;
        Ftrace* owner;
    };

private:
    // Declaration order is destruction order reversed: the plug-in list is
    // unloaded with the still-live parser handle, and the instance goes last.
    TraceFS m_tracefs;
    std::unique_ptr<tep_handle, void (*)(tep_handle*)> m_handle;
    std::unique_ptr<tep_plugin_list, FtracePluginListDestructor> m_plugins;
    std::thread m_thread;  // never started by the module; must be empty at destruction
};

// Trampoline with a C-style signature for callers that take a void* routine:
// `arguments` points to four pointer-sized words: context, callback, reader, ftrace.
int FtracePerCPUReader_read_once(void* arguments);
