#include "AuditCommand.h"

#include "EventJson.h"

#include "AuditConstants.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditTask.h"
#include "AuditUtil.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/TimeUtils.h"

#include <chrono>
#include <mutex>
#include <ostream>
#include <thread>

namespace Agent {

namespace {

// Ends in "_task", so the module's clean-up ("-D -k _task***") also finds what it leaves.
const std::string kCliTaskName = "audit_cli_task";

// Prints every event it receives, one JSON line each.
class PrintingSubscriber : public Framework::Task,
                           public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    explicit PrintingSubscriber(std::ostream& out)
        : Framework::Task(kCliTaskName, "audit_cli", Framework::TaskCondition::kLoop, 4096), out_(out) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        if (msg.event) {
            std::lock_guard<std::mutex> lock(mutex_);
            out_ << DecodedEventToJson(*msg.event, msg.tag) << std::endl;
        }
        return 0;
    }

private:
    std::ostream& out_;
    std::mutex mutex_;
};

class CliModule : public Framework::Module {
public:
    CliModule(Engine::AuditTask* audit, PrintingSubscriber* subscriber)
        : Framework::Module("audit_cli_module"), audit_(audit), subscriber_(subscriber) {}
    int Init() override
    {
        return RegisterTask(audit_, true) == 0 && RegisterTask(subscriber_, true) == 0 ? 0 : -1;
    }

private:
    Engine::AuditTask* audit_;
    PrintingSubscriber* subscriber_;
};

// True once the kernel lists a rule with this key, within a few seconds.
bool KernelHasRule(const std::string& key)
{
    Engine::AuditRules probe;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
        if (probe.AuditctlRuleExist(key)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace

int RunAuditCommand(const AuditRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err)
{
    if (request.rules.empty() && request.watches.empty()) {
        err << "hostwarden audit: give at least one rule or --watch PATH\n";
        return 2;
    }
    // Refuse bad rule texts before anything is installed, with the module's own parser.
    std::vector<std::string> keys;
    for (const std::string& text : request.rules) {
        Engine::AuditSyscallCtrlMessage probe;
        probe.rule = text;
        Engine::SyscallRule rule;
        int result = Engine::kRuleRejected;
        try {
            result = Engine::LinuxAuditUtil::auditDistractSyscallRule(probe, rule);
        } catch (const std::exception&) {
        }
        if (result != Engine::kRuleParsed) {
            err << "hostwarden audit: refused rule '" << text
                << "' (expected LIST,ACTION then -S NAME[,NAME], -F NAME=VALUE and -k KEY options)\n";
            return 1;
        }
        keys.push_back(Engine::getRuleKey(kCliTaskName, request.tag, rule));
    }
    for (const std::string& path : request.watches) {
        if (path.empty() || path[0] != '/') {
            err << "hostwarden audit: a watched path must be absolute: '" << path << "'\n";
            return 1;
        }
        Engine::FileSystemRule rule;
        rule.path = path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
        rule.perm = "wa";
        keys.push_back(Engine::getRuleKey(kCliTaskName, request.tag, rule));
    }

    Framework::Engine::BlockTerminationSignals();
    auto* audit = new Engine::AuditTask;
    auto* subscriber = new PrintingSubscriber(out);
    if (engine.AddModule(std::make_unique<CliModule>(audit, subscriber)) != 0 || engine.StartTasks() != 0) {
        err << "hostwarden audit: cannot start the audit task\n";
        engine.StopAll();
        return 1;
    }
    if (!audit->AuditEnabled()) {
        err << "hostwarden audit: the audit system is not usable (kernel audit disabled, auditd not running, or "
               "its log disabled); see the log for the reason\n";
        engine.StopAll();
        return 1;
    }
    for (const std::string& text : request.rules) {
        auto* msg = new Engine::AuditSyscallCtrlMessage(subscriber);
        msg->tag = request.tag;
        msg->operate = "-a";
        msg->rule = text;
        subscriber->SendDirectMsg(Engine::kAuditTaskName, msg);
    }
    for (const std::string& path : request.watches) {
        auto* msg = new Engine::AuditFileSystemCtrlMessage(subscriber, path, {}, _FileNotifyOpt{});
        msg->tag = request.tag;
        msg->operate = "-w";
        msg->rule = path + " -p wa";
        subscriber->SendDirectMsg(Engine::kAuditTaskName, msg);
    }
    int status = 0;
    for (const std::string& key : keys) {
        if (!KernelHasRule(key)) {
            err << "hostwarden audit: the kernel did not install rule " << key << " (see the log for auditctl's answer)\n";
            status = 1;
        }
    }
    if (status == 0) {
        err << "hostwarden audit: " << keys.size() << " subscription(s) installed; printing events until interrupted\n";
        waitForStop();
    }
    subscriber->SendDirectMsg(Engine::kAuditTaskName, new Engine::AuditUnsubscribeMessage(subscriber));
    engine.StopAll();  // the audit task's UnInit removes whatever is left of ours
    return status;
}

}  // namespace Agent
