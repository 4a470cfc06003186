#include "LiveSession.h"

#include <unistd.h>

#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

#include <chrono>
#include <ostream>
#include <thread>

namespace Agent {

namespace {

constexpr int kAnswerMs = 10000;

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

// Owns its task whether or not the engine takes the module.
class SubscriberModule : public Framework::Module {
public:
    explicit SubscriberModule(std::unique_ptr<Framework::Task> task)
        : Framework::Module("hostwarden_cli_module"), task_(std::move(task))
    {
    }
    int Init() override { return RegisterTask(task_.get(), false); }

private:
    std::unique_ptr<Framework::Task> task_;
};

std::string Auditctl(const std::vector<std::string>& args, int& status)
{
    std::string output;
    status = SDK::ExecuteCmdUtils::ExecuteInstalledAuditctl(args, output, 1 << 16);
    return output;
}

}  // namespace

bool KernelListsKey(const std::string& key)
{
    int status = 0;
    const std::string output = Auditctl({"-l", "-k", key}, status);
    return status == 0 && output.find(key) != std::string::npos;
}

std::string LiveSession::AuditSystemProblem()
{
    int status = 0;
    const std::string output = Auditctl({"-s"}, status);
    if (status != 0) {
        return "cannot read the audit status (auditctl -s: " + output + ")";
    }
    if (output.find("enabled 1") == std::string::npos) {
        return "kernel audit is not enabled (auditctl -e 1)";
    }
    if (output.find("\npid 0\n") != std::string::npos) {
        return "auditd is not running";
    }
    return {};
}

bool LiveSession::Start(const std::string& subscriberName, Handler handler)
{
    const std::string problem = AuditSystemProblem();
    if (!problem.empty()) {
        err_ << command_ << ": the audit system is not usable: " << problem << "\n";
        return false;
    }
    std::string home;
    SDK::PathUtils::GetInstallationPath(home);
    const std::string library = home + "lib/modules/libaudit_module.so";
    Framework::Engine::BlockTerminationSignals();
    if (engine_.LoadModule(library) != 0) {
        err_ << command_ << ": cannot load the audit module " << library << "; see the log\n";
        return false;
    }
    // The container module, when installed, names the files of containerised processes as the
    // host sees them; without it they keep the paths the containers see.
    const std::string containers = home + "lib/modules/libcontainer_module.so";
    if (access(containers.c_str(), F_OK) == 0 && engine_.LoadModule(containers) != 0) {
        err_ << command_ << ": cannot load the container module " << containers << "; paths in containers stay as they see them\n";
    }
    auto subscriber = std::make_unique<SubscriberTask>(subscriberName, std::move(handler));
    subscriber_ = subscriber.get();
    if (engine_.AddModule(std::make_unique<SubscriberModule>(std::move(subscriber))) != 0 || engine_.StartTasks() != 0) {
        err_ << command_ << ": cannot start the audit module's tasks; see the log\n";
        engine_.StopAll();
        return false;
    }
    return true;
}

std::shared_ptr<Framework::MessageReceipt> LiveSession::Send(const std::string& target, Framework::Message* msg)
{
    auto receipt = std::make_shared<Framework::MessageReceipt>();
    msg->AttachReceipt(receipt);
    subscriber_->SendDirectMsg(target, msg);
    return receipt;
}

bool LiveSession::Accepted(const std::shared_ptr<Framework::MessageReceipt>& receipt, const std::string& what)
{
    int result = 0;
    switch (receipt->Wait(kAnswerMs, result)) {
    case Framework::MessageReceipt::Outcome::kPending:
        err_ << command_ << ": no answer from the audit module about " << what << "\n";
        return false;
    case Framework::MessageReceipt::Outcome::kDropped:
        err_ << command_ << ": the audit module did not take " << what << "\n";
        return false;
    case Framework::MessageReceipt::Outcome::kHandled:
        break;
    }
    if (result == -1) {
        err_ << command_ << ": the audit module finds the audit system unusable (see its log above), so it "
             << "refused " << what << "\n";
    } else if (result != 0) {
        err_ << command_ << ": the audit module refused " << what << " (see its log above)\n";
    }
    return result == 0;
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
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // auditctl is the only way to ask
    }
    if (present) {
        for (const std::string& key : waiting) {
            err_ << command_ << ": the kernel did not install rule " << key << " (see the log for auditctl's answer)\n";
        }
    }
    return waiting.empty();
}

void LiveSession::Print(std::ostream& out, const std::string& line)
{
    std::lock_guard<std::mutex> lock(outMutex_);
    if (outFailed_) {
        return;
    }
    out << line << std::endl;
    if (!out) {
        outFailed_ = true;
        engine_.RequestStop(0);
    }
}

void LiveSession::Limit(const std::string& tag, uint32_t perSecond, Export::EventLines& lines, std::ostream& out)
{
    limits_.Set(tag, perSecond);
    noticeLines_ = &lines;
    noticeOut_ = &out;
}

bool LiveSession::Admit(const Engine::AuditEventMessage& msg, const std::string& tag)
{
    const bool admitted = limits_.Admit(tag, std::chrono::steady_clock::now(), [&] { return Export::MessageAuthor(msg); });
    PrintSummaries(false);
    return admitted;
}

void LiveSession::PrintSummaries(bool all)
{
    if (noticeLines_ == nullptr) {
        return;
    }
    for (const Export::AgentNotice& notice : limits_.TakeSummaries(std::chrono::steady_clock::now(), all)) {
        std::string line;
        noticeLines_->AppendNotice(line, notice, SDK::TimeUtils::GetCurrentTimestampMS());
        Print(*noticeOut_, line);
    }
}

void LiveSession::Stop()
{
    engine_.StopAll();
    PrintSummaries(true);
}

}  // namespace Agent
