#pragma once
// What the ftrace task needs to turn a record of one event into its message,
// worked out once per event format instead of once per record: the message
// name, the entry keys in map order (with the first-added-wins rule already
// applied) and where each value sits in the record.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ftrace.h"

namespace Engine {

class FtraceMessage;

class FtraceEventLayout {
public:
    using Numbers = std::map<std::string, unsigned long>;
    using Strings = std::map<std::string, std::string>;

    // "timestamp" first, then every field in field order: arrays as strings,
    // everything else as numbers.
    explicit FtraceEventLayout(const FtraceEvent& event);

    const std::string& name() const { return m_name; }  // system ":" event name
    const std::string& system() const { return m_system; }
    const std::string& event_name() const { return m_event_name; }

    // The message of `record`: the same entries and values that adding
    // "timestamp" and then every field one by one would give.
    std::unique_ptr<FtraceMessage> make_message(const FtraceRecord& record) const;
    // The same message in one allocation with its shared owner's count.
    std::shared_ptr<FtraceMessage> make_shared_message(const FtraceRecord& record) const;

private:
    // Where a value comes from. A number source of size kTimestamp is the
    // record's time stamp; others read like FtraceRecord::get / get_string.
    struct Source {
        int offset;
        int size;
        bool dynamic;
        bool presized;  // string sources: the prototype value already has `size` bytes
    };
    static constexpr int kTimestamp = -1;
    static constexpr int kMostPresized = 4096;

    void read(const FtraceRecord& record, Numbers& numbers, Strings& strings) const;

    std::string m_name;
    std::string m_system;
    std::string m_event_name;
    // Every key with an empty value; copying a finished tree is cheaper than
    // inserting the keys one by one.
    Numbers m_number_keys;
    Strings m_string_keys;
    std::vector<Source> m_number_sources;  // in the key order of m_number_keys
    std::vector<Source> m_string_sources;  // in the key order of m_string_keys
};

}  // namespace Engine
