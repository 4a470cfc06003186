#pragma once

#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditRule.h"
#include "AuditRules.h"
#include "GetAuditConfAndStatus.h"

#include "TestCommon.h"

#include <deque>

namespace TestSupport {

/// Routes the module logger to a fresh capturing channel at the given level for one test.
class LogCapture : public LoggerCapture {
public:
    explicit LogCapture(int level = Poco::Message::PRIO_TRACE);
};

/// Audit netlink replies from a script of reply types (-1: nothing came), then otherType; every
/// reply carries status. Counts the replies taken and the sockets closed.
class StatusReplies : public Engine::AuditReplySource {
public:
    int Open() override { return openResult; }
    int RequestStatus(int) override { return requestResult; }
    int Poll(int, int) override { return 1; }
    int GetReply(int, audit_reply& reply) override;
    void Close(int) override { ++closes; }
    int openResult = 3;
    int requestResult = 1;
    int otherType = 1000;  ///< a status reply
    std::deque<int> script;
    audit_status status{};
    int gets = 0;
    int closes = 0;
};

/// A running process whose executable has the given name (a copy of sleep), killed at the end.
class NamedProcess {
public:
    NamedProcess(const TempDir& dir, const std::string& name);
    ~NamedProcess();
    pid_t pid = -1;
};

/// A subscriber task that keeps every AuditEventMessage it receives (call Drain to dispatch).
class Subscriber : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    explicit Subscriber(const std::string& name = "sub_task", size_t capacity = 4096);
    int Receive(const Engine::AuditEventMessage& msg) override;
    /// Dispatches everything queued; returns the messages received so far.
    const std::vector<std::pair<std::string, std::shared_ptr<Engine::AuditEvent>>>& Drain();
    std::vector<std::pair<std::string, std::shared_ptr<Engine::AuditEvent>>> received;  ///< (tag, event)
    std::vector<Engine::AuditEventResult> notifications;  ///< the file notifications among them
};

/// A plain task, for senders and owners.
class NamedTask : public Framework::Task {
public:
    explicit NamedTask(const std::string& name) : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 64) {}
};

/// An audit log owned by audit_task, with its rule registry, routing every event of system call 2
/// (open) on x86-64 to one subscriber with the tag t.
struct Pipeline {
    NamedTask owner{"audit_task"};
    Subscriber subscriber;
    Engine::AuditRules rules;
    Engine::AuditLog log{&owner, &rules};
    /// retryMs: how often the rule keeper retries missing rules on its own.
    explicit Pipeline(int retryMs = Engine::RuleKeeper::kRetryMs) : rules(retryMs)
    {
        Engine::auditSyscallDest dest;
        dest.task = &subscriber;
        dest.tag = "t";
        log.syscallRoutes64.emplace(2, dest);
    }
    /// The number of lines of each event delivered so far.
    std::vector<size_t> Delivered()
    {
        std::vector<size_t> sizes;
        for (const auto& [tag, event] : subscriber.Drain()) {
            sizes.push_back(event->lines.size());
        }
        return sizes;
    }
};

/// A system-call subscription as a subscriber sends it, parsed as the audit task parses it; AddTo
/// gives it to a rule registry as the audit task does.
struct SyscallSub {
    SyscallSub(Framework::Task* sender, const std::string& tag, const std::string& text, const std::string& operate = "-a");
    bool AddTo(Engine::AuditRules& rules) { return rules.AddAuditRule(msg, rule, stripped); }
    Engine::AuditSyscallCtrlMessage msg;
    Engine::SyscallRule rule;
    std::string stripped;  ///< the text without its key, as the rule registry takes it
    int parsed;            ///< the parser's result code
};

/// A watch subscription, the same way.
struct WatchSub {
    WatchSub(Framework::Task* sender, const std::string& tag, const std::string& text, const std::string& operate = "-w");
    bool AddTo(Engine::AuditRules& rules) { return rules.AddAuditRule(msg, rule, stripped); }
    Engine::AuditFileSystemCtrlMessage msg{nullptr, "", {}, _FileNotifyOpt{}};
    Engine::FileSystemRule rule;
    std::string stripped;
    int parsed;
};

/// Decodes the lines of one event as record assembly would, delivering nowhere; result gets
/// ParseAndDeliverLogs' code.
std::shared_ptr<Engine::AuditEvent> DecodeEvent(const std::vector<std::string>& lines, int* result = nullptr);

}  // namespace TestSupport
