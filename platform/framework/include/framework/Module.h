#pragma once

#include <string>
#include <vector>

namespace Framework {

class Task;
class TaskRegistry;

/// A plug-in of the agent: a named set of tasks. A module library exports
/// `extern "C" Framework::Module* CreateModule()`; the engine owns what it returns.
class Module {
public:
    explicit Module(const std::string& name);
    /// Destroys the tasks registered with frameworkOwns set.
    virtual ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    /// Called by the engine after loading; a module registers its tasks here. Returns 0 on success.
    virtual int Init();
    /// Called by the engine after every task has stopped and been un-initialised.
    virtual void UnInit();
    /// Called by the engine when the agent is asked to reload (SIGHUP): reopen files and the like.
    /// Runs on the engine's thread while the tasks run.
    virtual void Reload() {}

    /// Adds a task to the module; with frameworkOwns the module base destroys it. Returns 0, or
    /// -1 for a null task or a name the module already has.
    int RegisterTask(Task* task, bool frameworkOwns);
    /// Removes a task from the module (and from the name directory); the caller still owns it.
    /// Returns 0, or -1 when the module has no such task.
    int UnRegisterTask(const std::string& name);
    /// Withdraws the task's name route: messages sent to its name are dropped from now on.
    /// Returns 0, or -1 when the name was not routed.
    int UnRegisterTaskletCallback(const std::string& name);

    const std::string& GetName() const { return name_; }
    /// The registered tasks, in registration order.
    std::vector<Task*> GetTasks() const;
    /// Connects the module to the engine's name directory (done by the engine).
    void AttachRegistry(TaskRegistry* registry) { registry_ = registry; }

private:
    struct Entry {
        Task* task;
        bool owned;
    };
    const std::string name_;
    std::vector<Entry> tasks_;
    TaskRegistry* registry_ = nullptr;
};

/// The signature of a module library's entry point.
using CreateModuleFunc = Module* (*)();

}  // namespace Framework
