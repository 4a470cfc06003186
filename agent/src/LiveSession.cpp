#include "LiveSession.h"

#include "AuditConstants.h"
#include "AuditTask.h"
#include "FileWatchAuditTask.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/PathUtils.h"

#include <chrono>
#include <ostream>
#include <thread>

namespace Agent {

namespace {

// Hands every message to the session's handler.
class SubscriberTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    SubscriberTask(const std::string& name, LiveSession::Handler handler)
        : Framework::Task(name, "hostwarden_cli", Framework::TaskCondition::kLoop, 4096), handler_(std::move(handler))
    {
    }
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        handler_(msg);
        return 0;
    }

private:
    LiveSession::Handler handler_;
};

class SessionModule : public Framework::Module {
public:
    explicit SessionModule(std::vector<Framework::Task*> tasks)
        : Framework::Module("hostwarden_cli_module"), tasks_(std::move(tasks))
    {
    }
    int Init() override
    {
        for (Framework::Task* task : tasks_) {
            if (RegisterTask(task, true) != 0) {
                return -1;
            }
        }
        return 0;
    }

private:
    std::vector<Framework::Task*> tasks_;
};

}  // namespace

bool KernelListsKey(const std::string& key)
{
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        return false;
    }
    std::string output;
    const int status = SDK::ExecuteCmdUtils::ExecuteArgs({home + "bin/auditctl", "-l", "-k", key}, output, 1 << 16);
    return status == 0 && output.find(key) != std::string::npos;
}

bool LiveSession::Start(const std::string& subscriberName, Handler handler)
{
    Framework::Engine::BlockTerminationSignals();
    auto* audit = new Engine::AuditTask;
    subscriber_ = new SubscriberTask(subscriberName, std::move(handler));
    std::vector<Framework::Task*> tasks{audit, new Engine::FileWatchAuditTask, subscriber_};
    if (engine_.AddModule(std::make_unique<SessionModule>(tasks)) != 0 || engine_.StartTasks() != 0) {
        err_ << "cannot start the audit module's tasks; see the log for the reason\n";
        engine_.StopAll();
        return false;
    }
    if (!audit->AuditEnabled()) {
        err_ << "the audit system is not usable (kernel audit disabled, auditd not running, or its log "
                "disabled); see the log for the reason\n";
        engine_.StopAll();
        return false;
    }
    return true;
}

void LiveSession::Send(const std::string& target, Framework::Message* msg)
{
    subscriber_->SendDirectMsg(target, msg);
}

bool LiveSession::WaitForKernelKeys(const std::vector<std::string>& keys, bool present)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::vector<std::string> waiting = keys;
    while (!waiting.empty()) {
        std::vector<std::string> still;
        for (const std::string& key : waiting) {
            if (KernelListsKey(key) != present) {
                still.push_back(key);
            }
        }
        waiting.swap(still);
        if (waiting.empty() || std::chrono::steady_clock::now() >= deadline) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (present) {
        for (const std::string& key : waiting) {
            err_ << "the kernel did not install rule " << key << " (see the log for auditctl's answer)\n";
        }
    }
    return waiting.empty();
}

void LiveSession::Stop()
{
    engine_.StopAll();
}

}  // namespace Agent
