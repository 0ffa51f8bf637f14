#include "FtraceEventLayout.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "FtraceMessage.h"

namespace Engine {

namespace {

// FtraceRecord::get_number, inlined: host-order unsigned integer of 1, 2, 4 or
// 8 bytes (record data need not be aligned); any other size, and bytes not all
// inside the record's `record_size`, read 0.
inline uint64_t ReadNumber(const unsigned char* data, uint64_t record_size, int offset, int size) {
    if (offset < 0 || size <= 0 || static_cast<uint64_t>(offset) + static_cast<uint64_t>(size) > record_size) return 0;
    const unsigned char* at = data + offset;
    switch (size) {
        case 1: return *at;
        case 2: {
            uint16_t value;
            std::memcpy(&value, at, sizeof value);
            return value;
        }
        case 4: {
            uint32_t value;
            std::memcpy(&value, at, sizeof value);
            return value;
        }
        case 8: {
            uint64_t value;
            std::memcpy(&value, at, sizeof value);
            return value;
        }
        default: return 0;
    }
}

}  // namespace

FtraceEventLayout::FtraceEventLayout(const FtraceEvent& event)
    : m_name(event.name()), m_system(event.system()), m_event_name(event.event_name()) {
    // Keys in the order the entries are added; emplace keeps the first source
    // of a repeated key, as FtraceMessage::add keeps the first value.
    std::map<std::string, Source> numbers;
    std::map<std::string, Source> strings;
    numbers.emplace("timestamp", Source{0, kTimestamp, false, false});
    for (const FtraceField field : FtraceEvent::FtraceEventFields(event)) {
        // An event without own fields yields one position that holds no field.
        if (!field) continue;
        const Source source{field.offset(), field.size(), field.is_dynamic(), false};
        if (field.is_array()) {
            strings.emplace(field.name(), source);
        } else {
            numbers.emplace(field.name(), source);
        }
    }
    for (auto& entry : numbers) {
        m_number_keys.emplace_hint(m_number_keys.end(), entry.first, 0);
        m_number_sources.push_back(entry.second);
    }
    for (auto& entry : strings) {
        // A fixed array's value always has the array's length: the prototype
        // holds a string of that length, so that copying it sizes the value
        // and reading only fills it in.
        Source& source = entry.second;
        source.presized = !source.dynamic && source.size > 0 && source.size <= kMostPresized;
        m_string_keys.emplace_hint(m_string_keys.end(), entry.first,
                                   source.presized ? std::string(static_cast<size_t>(source.size), '\0') : std::string());
        m_string_sources.push_back(source);
    }
}

void FtraceEventLayout::read(const FtraceRecord& record, Numbers& numbers, Strings& strings) const {
    const auto* data = static_cast<const unsigned char*>(record.record()->data);
    // A corrupt record must not make us read past it (and the page buffer).
    const uint64_t record_size = static_cast<uint32_t>(record.record()->size);
    const Source* source = m_number_sources.data();
    for (auto& entry : numbers) {
        entry.second = source->size == kTimestamp
                           ? static_cast<unsigned long>(record.record()->ts)
                           : static_cast<unsigned long>(ReadNumber(data, record_size, source->offset, source->size));
        ++source;
    }
    source = m_string_sources.data();
    for (auto& entry : strings) {
        // FtraceRecord::get_string: the bytes as stored, trailing NULs included;
        // a __data_loc word holds the offset in its low and the length in its high half.
        uint64_t start = static_cast<uint32_t>(source->offset);
        uint64_t length = static_cast<uint32_t>(source->size);
        if (source->dynamic) {
            const uint64_t location = ReadNumber(data, record_size, source->offset, source->size);
            start = location & 0xffff;
            length = location >> 16;
        }
        if (length != 0 && start + length <= record_size) {
            if (source->presized) {
                std::memcpy(&entry.second[0], data + start, length);
            } else {
                entry.second.assign(reinterpret_cast<const char*>(data) + start, length);
            }
        } else if (source->presized) {
            entry.second.clear();
        }
        ++source;
    }
}

std::unique_ptr<FtraceMessage> FtraceEventLayout::make_message(const FtraceRecord& record) const {
    Numbers numbers(m_number_keys);
    Strings strings(m_string_keys);
    read(record, numbers, strings);
    return std::make_unique<FtraceMessage>(m_name, std::move(numbers), std::move(strings));
}

std::shared_ptr<FtraceMessage> FtraceEventLayout::make_shared_message(const FtraceRecord& record) const {
    Numbers numbers(m_number_keys);
    Strings strings(m_string_keys);
    read(record, numbers, strings);
    return std::make_shared<FtraceMessage>(m_name, std::move(numbers), std::move(strings));
}

}  // namespace Engine
