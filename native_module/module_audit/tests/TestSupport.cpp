#include "TestSupport.h"

#include "AuditLogging.h"
#include "AuditTask.h"
#include "AuditUtil.h"

#include <spawn.h>
#include <sys/wait.h>

namespace TestSupport {

void CapturingChannel::log(const Poco::Message& msg)
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.push_back(msg);
}

std::vector<Poco::Message> CapturingChannel::Messages()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::vector<std::string> CapturingChannel::Texts()
{
    std::vector<std::string> texts;
    for (const Poco::Message& msg : Messages()) {
        texts.push_back(msg.getText());
    }
    return texts;
}

bool CapturingChannel::Has(const std::string& text)
{
    const std::vector<std::string> texts = Texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

void CapturingChannel::Clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
}

LogCapture::LogCapture(int level) : channel_(new CapturingChannel)
{
    Poco::Logger* logger = Engine::Audit::GetLoggerPtr();
    logger->setChannel(channel_);
    logger->setLevel(level);
}

LogCapture::~LogCapture()
{
    Poco::Logger* logger = Engine::Audit::GetLoggerPtr();
    logger->setChannel(nullptr);
    logger->setLevel(Poco::Message::PRIO_FATAL);
}

FakeInstallation::FakeInstallation(int exitCode, const std::string& printed)
{
    dir.Write("bin/auditctl",
              "#!/bin/sh\n"
              "log=\"$(dirname \"$0\")/../calls\"\n"
              "[ -f \"$log\" ] || printf '%s\\n' \"$LD_LIBRARY_PATH\" > \"$log\"\n"
              "for a in \"$@\"; do printf '[%s]' \"$a\" >> \"$log\"; done\n"
              "printf '\\n' >> \"$log\"\n"
              "echo '" + printed + "'\n" +
                  // Like the kernel, a watch whose directory is missing is refused.
                  (exitCode < 0 ? "[ \"$1\" != -w ] || [ -d \"$(dirname \"$2\")\" ] || exit 1\nexit 0\n"
                                : "exit " + std::to_string(exitCode) + "\n"),
              0755);
    setenv("HOSTWARDEN_HOME", dir.path().c_str(), 1);
}

FakeInstallation::~FakeInstallation()
{
    unsetenv("HOSTWARDEN_HOME");
}

std::vector<std::string> FakeInstallation::Commands() const
{
    std::vector<std::string> commands = ReadLines(dir.path() + "/calls");
    if (!commands.empty()) {
        commands.erase(commands.begin());  // the library path
    }
    return commands;
}

int StatusReplies::GetReply(int, audit_reply& reply)
{
    ++gets;
    const int type = script.empty() ? otherType : script.front();
    if (!script.empty()) {
        script.pop_front();
    }
    reply.type = type;
    reply.status = &status;
    return type < 0 ? 0 : 1;
}

NamedProcess::NamedProcess(const TempDir& dir, const std::string& name)
{
    const std::string exe = dir.path() + "/" + name;
    std::filesystem::copy_file("/bin/sleep", exe);
    std::filesystem::permissions(exe, std::filesystem::perms::owner_all);
    char* argv[] = {const_cast<char*>(exe.c_str()), const_cast<char*>("600"), nullptr};
    posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, nullptr);
}

NamedProcess::~NamedProcess()
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

Subscriber::Subscriber(const std::string& name, size_t capacity)
    : Framework::Task(name, "test", Framework::TaskCondition::kLoop, capacity)
{
}

int Subscriber::Receive(const Engine::AuditEventMessage& msg)
{
    received.emplace_back(msg.tag, msg.event);
    if (msg.result.event != -1) {
        notifications.push_back(msg.result);
    }
    return 0;
}

const std::vector<std::pair<std::string, std::shared_ptr<Engine::AuditEvent>>>& Subscriber::Drain()
{
    while (BulkConsumeMsg(1024) > 0) {
    }
    return received;
}

SyscallSub::SyscallSub(Framework::Task* sender, const std::string& tag, const std::string& text, const std::string& operate)
    : msg(sender)
{
    std::tie(msg.tag, msg.operate, msg.rule) = std::tie(tag, operate, text);
    Engine::StripKeyInCmd(text, stripped);
    parsed = Engine::LinuxAuditUtil::auditDistractSyscallRule(msg, rule);
}

WatchSub::WatchSub(Framework::Task* sender, const std::string& tag, const std::string& text, const std::string& operate)
{
    std::tie(msg.sender, msg.tag, msg.operate, msg.rule) = std::tie(sender, tag, operate, text);
    Engine::StripKeyInCmd(text, stripped);
    parsed = Engine::LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
}

std::shared_ptr<Engine::AuditEvent> DecodeEvent(const std::vector<std::string>& lines, int* result)
{
    Engine::AuditLog log(nullptr, nullptr);
    auto event = std::make_shared<Engine::AuditEvent>();
    for (const std::string& line : lines) {
        if (line.find("type=PROCTITLE") == std::string::npos && line.find("type=EOE") == std::string::npos) {
            event->lines.push_back(line);
        }
    }
    const int rc = log.ParseAndDeliverLogs(event);
    if (result != nullptr) {
        *result = rc;
    }
    return event;
}

}  // namespace TestSupport
