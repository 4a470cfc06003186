#include "framework/Engine.h"

#include "framework/Module.h"
#include "framework/Task.h"

#include "sdk/DirUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/SharedLibrary.h>

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Framework {

std::atomic<Engine*> Engine::current_{nullptr};

namespace {

// How often the waiting main thread hands freed memory back to the system.
constexpr time_t kMemoryTrimSeconds = 5;

Poco::Logger& Log()
{
    return Poco::Logger::get("framework");
}

}  // namespace

Engine::Engine()
{
    current_.store(this);
}

Engine::~Engine()
{
    StopAll();
    Engine* self = this;
    current_.compare_exchange_strong(self, nullptr);
}

Engine* Engine::Current()
{
    return current_.load();
}

Task* Engine::FindTask(const std::string& name) const
{
    return registry_.Find(name);
}

int Engine::LoadModule(const std::string& libraryPath)
{
    auto library = std::make_unique<Poco::SharedLibrary>();
    try {
        library->load(libraryPath, Poco::SharedLibrary::SHLIB_LOCAL);
    } catch (const Poco::Exception& e) {
        poco_error(Log(), "Cannot load module library " + libraryPath + ": " + e.displayText());
        return -1;
    }
    if (!library->hasSymbol("CreateModule")) {
        poco_warning(Log(), libraryPath + " exports no CreateModule; it is not a module, skipped.");
        library->unload();
        return -1;
    }
    const auto create = reinterpret_cast<CreateModuleFunc>(library->getSymbol("CreateModule"));
    Module* module = nullptr;
    try {
        module = create();
    } catch (const std::exception& e) {
        poco_error(Log(), "CreateModule of " + libraryPath + " failed: " + e.what());
    } catch (...) {
        poco_error(Log(), "CreateModule of " + libraryPath + " failed with an exception of unknown type.");
    }
    if (module == nullptr) {
        poco_error(Log(), "CreateModule of " + libraryPath + " returned no module.");
        library->unload();
        return -1;
    }
    return Adopt(std::move(library), module);
}

int Engine::LoadModulesFrom(const std::string& directory)
{
    std::vector<std::string> names;
    if (SDK::DirUtils::ListEntries(directory, names) != 0) {
        poco_warning(Log(), "Cannot read the module directory " + directory + ".");
        return 0;
    }
    std::sort(names.begin(), names.end());
    int loaded = 0;
    for (const std::string& name : names) {
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0 &&
            LoadModule(directory + "/" + name) == 0) {
            ++loaded;
        }
    }
    return loaded;
}

int Engine::AddModule(std::unique_ptr<Module> module)
{
    if (!module) {
        return -1;
    }
    return Adopt(nullptr, module.release());
}

int Engine::Adopt(std::unique_ptr<Poco::SharedLibrary> library, Module* module)
{
    module->AttachRegistry(&registry_);
    int rc = -1;
    try {
        rc = module->Init();
    } catch (const std::exception& e) {
        poco_error(Log(), "Init of module " + module->GetName() + " threw: " + e.what());
    } catch (...) {
        poco_error(Log(), "Init of module " + module->GetName() + " threw an exception of unknown type.");
    }
    if (rc != 0) {
        poco_error(Log(), "Init of module " + module->GetName() + " failed.");
        delete module;  // its code is still loaded: the library is unloaded only afterwards
        if (library) {
            library->unload();
        }
        return -1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    modules_.push_back(Loaded{std::move(library), module, {}});
    poco_information(Log(), "Loaded module " + module->GetName() + ".");
    return 0;
}

int Engine::StartTasks()
{
    std::lock_guard<std::mutex> lock(mutex_);
    int result = 0;
    for (Loaded& loaded : modules_) {
        for (Task* task : loaded.module->GetTasks()) {
            const bool running = std::any_of(loaded.tasks.begin(), loaded.tasks.end(),
                                             [task](const Running& r) { return r.task == task; });
            if (running) {
                continue;
            }
            task->AttachRegistry(&registry_);
            if (!registry_.Add(task)) {
                poco_error(Log(), "A task named " + task->GetName() + " is already running; not started.");
                result = -1;
                continue;
            }
            if (task->Init() != 0) {
                poco_error(Log(), "Init of task " + task->GetName() + " failed; not started.");
                registry_.Remove(task->GetName());
                result = -1;
                continue;
            }
            task->SetState(kTaskRunning);
            std::thread thread([this, task] { RunTask(task); });
            pthread_setname_np(thread.native_handle(), task->GetName().substr(0, 15).c_str());
            loaded.tasks.push_back(Running{task, std::move(thread)});
        }
    }
    return result;
}

void Engine::RunTask(Task* task)
{
    // An exception that escapes a task ends that task, not the agent.
    std::string reason;
    try {
        task->Run();
        return;
    } catch (const std::exception& e) {
        reason = std::string("an exception: ") + e.what();
    } catch (...) {
        reason = "an exception of unknown type.";
    }
    task->SetState(kTaskStop);
    // From now on messages to it are dropped (and their receipts say so) instead of piling up.
    registry_.Remove(task->GetName());
    // Logged last, so whoever reads the line sees the task already stopped and unrouted.
    poco_error(Log(), "Task " + task->GetName() + " stopped by " + reason);
}

void Engine::StopAll()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (Loaded& loaded : modules_) {
        for (Running& running : loaded.tasks) {
            running.task->Stop();
        }
    }
    for (Loaded& loaded : modules_) {
        for (Running& running : loaded.tasks) {
            if (running.thread.joinable()) {
                running.thread.join();
            }
        }
    }
    for (Loaded& loaded : modules_) {
        for (Running& running : loaded.tasks) {
            running.task->UnInit();
        }
    }
    // The last loaded module goes first: it may depend on the ones before it.
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        it->module->UnInit();
        for (Task* task : it->module->GetTasks()) {
            if (registry_.Find(task->GetName()) == task) {
                registry_.Remove(task->GetName());
            }
        }
    }
    // Every module, and with it every queue, goes before any library: a queue may still hold
    // messages whose code lives in another module's library.
    std::vector<std::string> names;
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        names.push_back(it->module->GetName());
        delete it->module;
        it->module = nullptr;
    }
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        if (it->library) {
            it->library->unload();
        }
    }
    modules_.clear();
    for (const std::string& name : names) {
        poco_information(Log(), "Unloaded module " + name + ".");
    }
}

std::vector<std::string> Engine::ModuleNames() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const Loaded& loaded : modules_) {
        names.push_back(loaded.module->GetName());
    }
    return names;
}

namespace {

sigset_t AgentSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGQUIT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void Engine::BlockTerminationSignals()
{
    const sigset_t set = AgentSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void Engine::ReloadModules()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (Loaded& loaded : modules_) {
        loaded.module->Reload();
    }
}

void Engine::RequestStop(int code)
{
    stopCode_.store(code);
    kill(getpid(), SIGTERM);  // ends the sigwait of WaitForStop, whichever thread asks
}

void Engine::WaitForStop()
{
    const sigset_t set = AgentSignals();
    for (;;) {
        // Every few seconds without a signal, freed memory goes back to the system: the tasks'
        // threads each allocate from an arena of their own, and after a burst of events those
        // would otherwise keep their peak size for good.
        const timespec period{kMemoryTrimSeconds, 0};
        const int signal = sigtimedwait(&set, nullptr, &period);
        if (signal < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                return;
            }
            malloc_trim(0);
            continue;
        }
        if (signal != SIGHUP) {
            return;
        }
        poco_information(Log(), "Reloading on SIGHUP.");
        ReloadModules();
    }
}

int Engine::main(const std::vector<std::string>& args)
{
    (void)args;
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        poco_fatal(Log(), "Cannot determine the installation directory.");
        return EXIT_SOFTWARE;
    }
    std::string problem;
    const int code = RunModules(home + "lib/modules", {}, "", [this] { WaitForStop(); }, problem);
    if (!problem.empty()) {
        poco_fatal(Log(), problem);
    }
    return code;
}

int Engine::RunModules(const std::string& directory, const std::vector<std::string>& required, const std::string& about,
                       const std::function<void()>& waitForStop, std::string& problem)
{
    BlockTerminationSignals();
    const int loaded = LoadModulesFrom(directory);
    const std::vector<std::string> modules = ModuleNames();
    for (const std::string& needed : required) {
        if (std::find(modules.begin(), modules.end(), needed) == modules.end()) {
            problem = "the " + needed + " did not load from " + directory + " (see the log)";
            StopAll();
            return EXIT_SOFTWARE;
        }
    }
    if (StartTasks() != 0) {
        problem = "a task did not start (see the log)";
        StopAll();
        return EXIT_SOFTWARE;
    }
    poco_information(Log(), Poco::format("Agent started with %d module(s) from %s%s.", loaded, directory, about));
    waitForStop();
    poco_information(Log(), "Agent stopping.");
    StopAll();
    poco_information(Log(), "Agent stopped.");
    return StopCode();
}

}  // namespace Framework
