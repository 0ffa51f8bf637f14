#include "FtraceEventLayout.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "FtraceMessage.h"

namespace Engine {

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
    const Source* source = m_number_sources.data();
    for (auto& entry : numbers) {
        entry.second = source->size == kTimestamp
                           ? static_cast<unsigned long>(record.record()->ts)
                           : static_cast<unsigned long>(record.get_number(source->offset, source->size));
        ++source;
    }
    const auto* data = static_cast<const char*>(record.record()->data);
    source = m_string_sources.data();
    for (auto& entry : strings) {
        // What FtraceRecord::get_string reads, written into the prototype's value.
        uint64_t start = 0;
        uint64_t length = 0;
        if (record.get_string_extent(source->offset, source->size, source->dynamic, &start, &length)) {
            if (source->presized) {
                std::memcpy(&entry.second[0], data + start, length);
            } else {
                entry.second.assign(data + start, length);
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
