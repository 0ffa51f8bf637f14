#pragma once
// Size, signedness and order of the fields of the traced events, read once
// from their format files. Messages carry every number as unsigned 64 bits;
// the outputs need this to print an int -2 as -2 and fields in the order the
// kernel declares them. Filled before tracing starts, read-only afterwards.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "AgentOptions.h"

class Ftrace;

namespace Agent {

struct FieldType {
    std::string name;
    int size = 8;  // bytes
    bool is_signed = false;
    bool is_array = false;  // a string entry of the message
};

// What the module puts in a message of the event: "timestamp" first (it
// wins over a field of that name), then every field, arrays as strings.
struct EventFields {
    std::vector<FieldType> in_order;  // common fields first, then the event's own
    std::vector<FieldType> numbers;   // the message's number keys, in their byte order
    std::vector<FieldType> strings;   // the message's string keys, in their byte order
};

class EventFieldTypes {
public:
    // Events whose format cannot be read are left out: their numbers print unsigned.
    void Load(Ftrace& ftrace, const std::vector<EventName>& events);
    void Add(const std::string& event_name, std::vector<FieldType> fields);

    // Null for an unknown event.
    const EventFields* Fields(const std::string& event_name) const;
    // `value` as the field's C type holds it: sign-extended from its size when signed.
    static int64_t Signed(uint64_t value, int size);

private:
    std::map<std::string, EventFields> m_events;
};

}  // namespace Agent
