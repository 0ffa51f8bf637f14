#pragma once
#include <map>
#include <string>
#include <utility>

namespace Framework {

class Task;

// Routing table of a task's outbound messages: (message kind, target name) to
// the target task. Not owning: destroying it leaves the tasks alone.
class MessageProductor {
public:
    struct MsgKeyCompare {
        bool operator()(const std::pair<unsigned long, std::string>& a,
                        const std::pair<unsigned long, std::string>& b) const {
            return a.first != b.first ? a.first < b.first : a.second < b.second;
        }
    };
    using RouteMap = std::map<std::pair<unsigned long, std::string>, Task*, MsgKeyCompare>;

    virtual ~MessageProductor() = default;

    void AddRoute(unsigned long kind, const std::string& target, Task* task) { m_routes[{kind, target}] = task; }
    Task* Route(unsigned long kind, const std::string& target) const {
        auto it = m_routes.find({kind, target});
        return it == m_routes.end() ? nullptr : it->second;
    }

private:
    RouteMap m_routes;
};

}  // namespace Framework
