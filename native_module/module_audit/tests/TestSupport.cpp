#include "TestSupport.h"

#include "AuditLogging.h"
#include "AuditTask.h"
#include "AuditUtil.h"

#include <spawn.h>
#include <sys/wait.h>

namespace TestSupport {

LogCapture::LogCapture(int level) : LoggerCapture(*Engine::Audit::GetLoggerPtr(), level) {}

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
