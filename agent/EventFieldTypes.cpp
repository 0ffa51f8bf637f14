#include "EventFieldTypes.h"

#include <algorithm>

#include "ftrace.h"

namespace Agent {

void EventFieldTypes::Load(Ftrace& ftrace, const std::vector<EventName>& events) {
    for (const auto& name : events) {
        const FtraceEvent event = ftrace.get_event(name.system, name.event);
        if (!event) continue;
        std::vector<FieldType> fields;
        for (const FtraceField field : FtraceEvent::FtraceEventFields(event)) {
            fields.push_back(
                {field.name(), field.size(), (field.get()->flags & TEP_FIELD_IS_SIGNED) != 0, field.is_array()});
        }
        Add(name.FullName(), std::move(fields));
    }
}

void EventFieldTypes::Add(const std::string& event_name, std::vector<FieldType> fields) {
    EventFields& event = m_events[event_name];
    event.numbers = {{"timestamp", 8, false, false}};
    for (const auto& field : fields) {
        if (field.is_array) {
            event.strings.push_back(field);
        } else if (field.name != "timestamp") {
            event.numbers.push_back(field);
        }
    }
    const auto by_name = [](const FieldType& a, const FieldType& b) { return a.name < b.name; };
    std::sort(event.numbers.begin(), event.numbers.end(), by_name);
    std::sort(event.strings.begin(), event.strings.end(), by_name);
    event.in_order = std::move(fields);
}

const EventFields* EventFieldTypes::Fields(const std::string& event_name) const {
    const auto it = m_events.find(event_name);
    return it == m_events.end() ? nullptr : &it->second;
}

int64_t EventFieldTypes::Signed(uint64_t value, int size) {
    switch (size) {
        case 1:
            return static_cast<int8_t>(value);
        case 2:
            return static_cast<int16_t>(value);
        case 4:
            return static_cast<int32_t>(value);
        default:
            return static_cast<int64_t>(value);
    }
}

}  // namespace Agent
