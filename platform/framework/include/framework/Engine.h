#pragma once

#include "framework/TaskRegistry.h"

#include <Poco/Util/ServerApplication.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Poco {
class SharedLibrary;
}

namespace Framework {

class Module;
class Task;

/// The agent's engine: the application object that loads modules, runs every task on a thread
/// of its own, routes messages by task name, and takes everything down in order.
class Engine : public Poco::Util::ServerApplication {
public:
    Engine();
    ~Engine() override;

    /// The engine of this process, or null when none exists.
    static Engine* Current();

    /// The running task of that name, or null.
    Task* FindTask(const std::string& name) const;

    /// Loads a module library, calls its CreateModule and the module's Init. Returns 0, or -1
    /// (logged) when the library cannot be loaded, has no CreateModule, or Init fails.
    int LoadModule(const std::string& libraryPath);
    /// Loads every "*.so" in a directory, in name order. Returns how many modules loaded.
    int LoadModulesFrom(const std::string& directory);
    /// Takes a module made in this process, and calls its Init. Returns 0 or -1.
    int AddModule(std::unique_ptr<Module> module);

    /// Initialises and starts every registered task that is not running yet. Returns 0, or -1
    /// when a task's Init failed (that task is not started).
    int StartTasks();
    /// Stops every task, joins the threads, un-initialises tasks and modules (the last loaded
    /// first), destroys the modules and unloads their libraries. Safe to call twice.
    void StopAll();

    /// The names of the running tasks' modules, in load order.
    std::vector<std::string> ModuleNames() const;

    /// Calls every module's Reload.
    void ReloadModules();
    /// Ends the wait of the agent's main job (as SIGTERM does), which then exits with code.
    void RequestStop(int code);
    /// The exit code a RequestStop asked for (EXIT_OK when none did).
    int StopCode() const { return stopCode_.load(); }

    /// The agent's configuration file, for modules that read their settings from it (empty: none).
    const std::string& ConfigurationFile() const { return configurationFile_; }
    void SetConfigurationFile(const std::string& path) { configurationFile_ = path; }

    /// Blocks SIGINT, SIGQUIT, SIGTERM and SIGHUP for the calling thread and the threads it starts
    /// later, so they reach WaitForStop instead of ending the process on any thread.
    static void BlockTerminationSignals();

    /// The agent's life: blocks the termination signals, loads every module in directory,
    /// checks that each module named in required loaded, starts the tasks, waits (waitForStop)
    /// and stops everything, logging "Agent started with N module(s) from DIR" (then about) and
    /// "Agent stopping." / "Agent stopped.". The stop code; EXIT_SOFTWARE, with problem set and
    /// nothing left running, when a required module did not load or a task did not start.
    int RunModules(const std::string& directory, const std::vector<std::string>& required, const std::string& about,
                   const std::function<void()>& waitForStop, std::string& problem);

protected:
    /// The agent's main job: load the modules of the installation, run until SIGINT or SIGTERM,
    /// stop cleanly.
    int main(const std::vector<std::string>& args) override;

    /// Blocks until the process is asked to terminate (SIGINT, SIGQUIT, SIGTERM or RequestStop);
    /// a SIGHUP meanwhile reloads the modules (overridable for tests).
    virtual void WaitForStop();

private:
    struct Running {
        Task* task;
        std::thread thread;
    };
    // A task's thread: Run, with whatever escapes it caught and logged, the task stopped and its
    // name route withdrawn.
    void RunTask(Task* task);
    struct Loaded {
        std::unique_ptr<Poco::SharedLibrary> library;  // null for modules made in-process
        Module* module;
        std::vector<Running> tasks;
    };
    int Adopt(std::unique_ptr<Poco::SharedLibrary> library, Module* module);

    mutable std::mutex mutex_;
    std::vector<Loaded> modules_;
    std::string configurationFile_;
    std::atomic<int> stopCode_{EXIT_OK};
    TaskRegistry registry_;
    static std::atomic<Engine*> current_;
};

}  // namespace Framework
