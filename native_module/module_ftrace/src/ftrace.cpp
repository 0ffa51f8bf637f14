#include "ftrace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "FtraceLog.h"

// ---------------------------------------------------------------- FtraceField

std::string FtraceField::name() const { return m_field->name; }
std::string FtraceField::type() const { return m_field->type; }
std::string FtraceField::alias() const { return m_field->alias; }
int FtraceField::size() const { return m_field->size; }
int FtraceField::offset() const { return m_field->offset; }
bool FtraceField::is_array() const { return (m_field->flags & TEP_FIELD_IS_ARRAY) != 0; }
bool FtraceField::is_dynamic() const { return (m_field->flags & TEP_FIELD_IS_DYNAMIC) != 0; }

std::ostream& operator<<(std::ostream& os, const FtraceField& field) {
    return os << "  " << field.name() << " : " << field.type();
}

// ---------------------------------------------------------------- FtraceEvent

std::string FtraceEvent::system() const { return m_event->system; }
std::string FtraceEvent::event_name() const { return m_event->name; }
std::string FtraceEvent::name() const { return system() + ":" + event_name(); }
int FtraceEvent::id() const { return m_event->id; }

void FtraceEvent::write_full_name(std::ostream& os) const {
    // Raw pointers on purpose: a null text marks the stream bad instead of throwing.
    os << static_cast<const char*>(m_event->system) << ":" << static_cast<const char*>(m_event->name);
}

FtraceField FtraceEvent::field(const std::string& name) const {
    const FtraceEventFields fields(*this);
    for (auto it = fields.begin(); it != fields.end(); ++it) {
        const FtraceField candidate = *it;
        // An event without own fields has one position without a field.
        if (candidate && candidate.name() == name) return candidate;
    }
    return FtraceField();
}

FtraceEvent::FtraceFieldIterator FtraceEvent::FtraceEventFields::begin() const {
    return FtraceFieldIterator(m_event, m_event->get()->format.common_fields, 0, 0);
}

FtraceEvent::FtraceFieldIterator FtraceEvent::FtraceEventFields::end() const {
    return FtraceFieldIterator(m_event, m_event->get()->format.common_fields, 2, 0);
}

FtraceEvent::FtraceFieldIterator& FtraceEvent::FtraceFieldIterator::operator++() {
    const tep_format& format = event->get()->format;
    ++index;
    if (phase == 0) {
        if (index >= format.nr_common) {
            current = format.fields;
            index = 0;
            phase = 1;
        } else {
            current = current->next;
        }
    } else if (index >= format.nr_fields) {
        current = nullptr;
        index = 0;
        ++phase;
    } else {
        current = current->next;
    }
    return *this;
}

bool FtraceEvent::FtraceFieldIterator::operator==(const FtraceFieldIterator& other) const {
    // `current` is left out: past the last own field it is null, while end()
    // holds the common-field list head.
    return event == other.event && phase == other.phase && index == other.index;
}

std::ostream& operator<<(std::ostream& os, const FtraceEvent& event) {
    if (!event) return os << "(invalid)";
    event.write_full_name(os);
    return os << " (" << event.id() << ")";
}

// --------------------------------------------------------------- FtraceRecord

uint64_t FtraceRecord::get(const FtraceField& field) const { return get_number(field.offset(), field.size()); }
uint64_t FtraceRecord::get(const std::string& name) const { return get(m_event.field(name)); }

std::string FtraceRecord::get_string(const FtraceField& field) const {
    uint64_t start = 0;
    uint64_t length = 0;
    if (!field.is_array() || !get_string_extent(field.offset(), field.size(), field.is_dynamic(), &start, &length)) {
        return std::string();
    }
    // Taken as stored: trailing NULs of fixed arrays and of the kernel's string
    // terminator stay part of the value.
    return std::string(static_cast<const char*>(m_record->data) + start, length);
}

std::string FtraceRecord::get_string(const std::string& name) const { return get_string(m_event.field(name)); }
std::string FtraceRecord::event_name() const { return m_event.name(); }
uint64_t FtraceRecord::pid() const { return get("common_pid"); }
int FtraceRecord::cpu() const { return m_record->cpu; }
uint64_t FtraceRecord::timestamp() const { return m_record->ts; }

std::ostream& operator<<(std::ostream& os, const FtraceRecord& record) {
    return os << record.event() << ": " << static_cast<const void*>(record.record());
}

// --------------------------------------------------------------------- Ftrace

Ftrace::Ftrace(const std::string& name)
    : m_tracefs(name), m_handle(tep_alloc(), tep_free), m_plugins(nullptr, FtracePluginListDestructor(*this)) {
    m_plugins.reset(tep_load_plugins(m_handle.get()));
}

void Ftrace::FtracePluginListDestructor::operator()(tep_plugin_list* list) const {
    tep_unload_plugins(list, owner->m_handle.get());
}

std::string Ftrace::tracing_dir() const { return m_tracefs.dir(); }
std::string Ftrace::tracing_file(const std::string& name) const { return m_tracefs.file(name); }

std::string Ftrace::read_ftrace_format(const std::string& system, const std::string& event) {
    std::ifstream in(tracing_dir() + "/events/" + system + "/" + event + "/format");
    if (!in.is_open()) return std::string();
    // Up to the first NUL byte or the end of the file.
    std::stringstream text;
    in.get(*text.rdbuf(), '\0');
    return text.str();
}

FtraceEvent Ftrace::load_event(const std::string& system, const std::string& event) {
    const std::string text = read_ftrace_format(system, event);
    if (text.empty()) {
        std::cerr << "Failed to read format (or it was empty)" << std::endl;
        return FtraceEvent();
    }
    tep_event* parsed = nullptr;
    const tep_errno result = tep_parse_format(m_handle.get(), &parsed, text.c_str(), text.size(), system.c_str());
    if (result != 0) {
        char reason[1024] = {};
        tep_strerror(m_handle.get(), result, reason, sizeof reason);
        std::cerr << "Failed to parse format: " << reason << std::endl;
        return FtraceEvent();
    }
    if (parsed == nullptr) {
        std::cerr << "Event " << system << ":" << event << " cannot be found." << std::endl;
        return FtraceEvent();
    }
    return FtraceEvent(parsed);
}

FtraceEvent Ftrace::get_event(const std::string& system, const std::string& event) {
    tep_event* known = tep_find_event_by_name(m_handle.get(), system.c_str(), event.c_str());
    if (known != nullptr) return FtraceEvent(known);
    return load_event(system, event);
}

FtraceEvent Ftrace::get_event(int id) const { return FtraceEvent(tep_find_event(m_handle.get(), id)); }
int Ftrace::events_count() const { return tep_get_events_count(m_handle.get()); }
bool Ftrace::is_file_bigendian() const { return tep_is_file_bigendian(m_handle.get()); }
int Ftrace::page_size() const { return tep_get_header_page_size(m_handle.get()); }
int Ftrace::event_id(tep_record* record) const { return tep_data_type(m_handle.get(), record); }
tep_event** Ftrace::list_events() const { return tep_list_events(m_handle.get(), TEP_EVENT_SORT_ID); }

// --------------------------------------------------------- control files

void Ftrace::append_file(const std::string& path, const std::string& text) {
    // No O_CREAT: a control file that is not there is an error, never a new file.
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    if (fd < 0) {
        FTRACE_LOG(3, "Ftrace::append open file {%s} err", path);
        return;
    }
    if (::write(fd, text.data(), text.size()) < 0) FTRACE_LOG(3, "Ftrace::append write file {%s} err", path);
    ::close(fd);
}

bool Ftrace::write_file(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) {
        FTRACE_LOG(3, "Ftrace::write open file {%s} err", path);
        return false;
    }
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written) FTRACE_LOG(3, "Ftrace::write write file {%s} err", path);
    ::close(fd);
    return written;
}

void Ftrace::add(const FtraceEvent& event) {
    // Appending to set_event enables this one event and leaves the others alone.
    std::stringstream line;
    event.write_full_name(line);
    line << std::endl;
    append_file(tracing_file("set_event"), line.str());
}

void Ftrace::remove(const FtraceEvent& event) {
    // Disabled through the event's own switch, not through set_event.
    const std::string path = tracing_dir() + "/events/" + event.system() + "/" + event.event_name() + "/" + "enable";
    const int fd = ::open(path.c_str(), O_WRONLY);
    if (fd < 0) {
        FTRACE_LOG(3, "Ftrace::remove open file {%s} err", path);
        return;
    }
    if (::write(fd, "0", 1) < 0) FTRACE_LOG(3, "Ftrace::remove write file {%s} err", path);
    ::close(fd);
}

void Ftrace::event_filter_add_pid(const int& pid) {
    std::stringstream line;
    line << pid << std::endl;
    append_file(tracing_file("set_event_pid"), line.str());
}

void Ftrace::event_filter_clean_all() {
    // Truncating set_event_pid empties the kernel's list.
    std::ofstream emptied(tracing_file("set_event_pid"));
}

void Ftrace::event_filter_rmv_pid(const int& pid) {
    const std::string path = tracing_file("set_event_pid");
    // Opened before the list is cleared and without O_TRUNC, so that the final
    // write adds the kept ids to the then empty list.
    const int fd = ::open(path.c_str(), O_WRONLY);
    if (fd < 0) {
        FTRACE_LOG(3, "Ftrace::event_filter_rmv_pid open file {%s} err", path);
        return;
    }

    const std::string dropped = std::to_string(pid);
    std::ostringstream kept;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line == dropped) continue;
        kept << line << '\n';
    }

    event_filter_clean_all();

    std::string text = kept.str();
    if (!text.empty() && text.back() == '\n') text.pop_back();
    // The text of remove()'s failed open is reused here on purpose.
    if (::write(fd, text.data(), text.size()) < 0) FTRACE_LOG(3, "Ftrace::remove open file {%s} err", path);
    ::close(fd);
}
