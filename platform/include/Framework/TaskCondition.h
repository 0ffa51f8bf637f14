#pragma once

namespace Framework {

// What kind of work a task does; the engine only records it (for listings and
// the agent's status output).
class TaskCondition {
public:
    enum TaskType {
        TASK_TYPE_NORMAL = 0,
        TASK_TYPE_DETECTOR = 1,
        TASK_TYPE_AUDITOR = 2,
        TASK_TYPE_REPORTER = 3,
        TASK_TYPE_COLLECTOR = 4,  // feeds kernel or system data to other tasks (the ftrace task)
    };

    TaskCondition() = default;
    explicit TaskCondition(TaskType type) : m_type(type) {}
    TaskType Type() const { return m_type; }

private:
    TaskType m_type = TASK_TYPE_NORMAL;
};

}  // namespace Framework
