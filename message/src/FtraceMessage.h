#pragma once
// One kernel trace record as delivered to subscribers: the event's full name
// ("system:event"), the numbers and the strings of the record. Immutable once sent.

#include <map>
#include <ostream>
#include <string>

#include "AbstructMessage.h"

namespace Engine {

class FtraceMessage : public AbstructMessage<FtraceMessage> {
public:
    explicit FtraceMessage(std::string name);
    // All entries at once (each map's keys are unique by nature).
    FtraceMessage(std::string name, std::map<std::string, unsigned long> numbers,
                  std::map<std::string, std::string> strings);
    ~FtraceMessage() override;

    // First value wins: adding an existing key again is ignored.
    void add(std::string key, std::string value);
    void add(std::string key, unsigned long value);

    unsigned long get_number(const std::string& key) const;  // 0 when absent
    const std::string& get_string(const std::string& key) const;  // "" when absent
    const std::string& name() const { return m_name; }
    std::map<std::string, unsigned long> numbers() const { return m_numbers; }
    std::map<std::string, std::string> strings() const { return m_strings; }

private:
    std::string m_name;
    std::map<std::string, unsigned long> m_numbers;
    std::map<std::string, std::string> m_strings;
};

// "name " then "key: value, " for every number, then for every string.
std::ostream& operator<<(std::ostream& os, const FtraceMessage& message);

}  // namespace Engine
