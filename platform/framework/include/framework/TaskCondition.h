#pragma once

namespace Framework {

/// Scheduling attributes of a task.
struct TaskCondition {
    /// How a task runs.
    enum TaskType {
        kOnce = 1,      ///< runs once and returns
        kPeriodic = 2,  ///< woken at intervals
        kOnEvent = 3,   ///< woken by messages only
        kLoop = 4,      ///< owns its thread and loops until stopped
    };
};

/// Task states; a task's Run loop ends when it sees kStop.
enum TaskState {
    kTaskCreated = 0,
    kTaskInitialised = 1,
    kTaskRunning = 2,
    kTaskStop = 3,
};

}  // namespace Framework
