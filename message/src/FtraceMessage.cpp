#include "FtraceMessage.h"

#include <utility>

namespace Engine {

FtraceMessage::FtraceMessage(std::string name) : m_name(std::move(name)) {}

FtraceMessage::FtraceMessage(std::string name, std::map<std::string, unsigned long> numbers,
                             std::map<std::string, std::string> strings)
    : m_name(std::move(name)), m_numbers(std::move(numbers)), m_strings(std::move(strings)) {}

FtraceMessage::~FtraceMessage() = default;

// emplace leaves an existing entry alone: the first value added under a key
// stays, so a record field cannot overwrite the time stamp added before it.
void FtraceMessage::add(std::string key, std::string value) { m_strings.emplace(std::move(key), std::move(value)); }

void FtraceMessage::add(std::string key, unsigned long value) { m_numbers.emplace(std::move(key), value); }

unsigned long FtraceMessage::get_number(const std::string& key) const {
    const auto it = m_numbers.find(key);
    return it == m_numbers.end() ? 0 : it->second;
}

const std::string& FtraceMessage::get_string(const std::string& key) const {
    static const std::string empty;
    const auto it = m_strings.find(key);
    return it == m_strings.end() ? empty : it->second;
}

std::ostream& operator<<(std::ostream& os, const FtraceMessage& message) {
    os << message.name() << ' ';
    for (const auto& entry : message.numbers()) os << entry.first << ": " << entry.second << ", ";
    for (const auto& entry : message.strings()) os << entry.first << ": " << entry.second << ", ";
    return os;
}

}  // namespace Engine
