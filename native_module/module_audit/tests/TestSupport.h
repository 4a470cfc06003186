#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include "AuditMessages.h"
#include "GetAuditConfAndStatus.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

/// A Poco channel that keeps every message, for asserting the module's log lines.
class CapturingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override;
    std::vector<Poco::Message> Messages();
    /// The texts of the messages logged so far.
    std::vector<std::string> Texts();
    /// True when a message with exactly this text was logged.
    bool Has(const std::string& text);
    void Clear();

private:
    std::mutex mutex_;
    std::vector<Poco::Message> messages_;
};

/// Routes the module logger to a fresh capturing channel at the given level for one test.
class LogCapture {
public:
    explicit LogCapture(int level = Poco::Message::PRIO_TRACE);
    ~LogCapture();
    CapturingChannel& channel() { return *channel_; }

private:
    Poco::AutoPtr<CapturingChannel> channel_;
};

/// A scratch directory removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    /// Writes a file (creating parent directories) and returns its path.
    std::string Write(const std::string& relative, const std::string& content, unsigned mode = 0644) const;

private:
    std::string path_;
};

/// An installation directory (HOSTWARDEN_HOME, for the life of the object) whose bin/auditctl
/// records every call: its LD_LIBRARY_PATH once, then each call's arguments as [a][b]... lines.
class FakeInstallation {
public:
    explicit FakeInstallation(int exitCode = 0, const std::string& printed = "printed-by-auditctl");
    ~FakeInstallation();
    /// Everything recorded so far.
    std::string Calls() const;
    /// The recorded argument lists, one per call.
    std::vector<std::string> Commands() const;
    TempDir dir;
};

/// Answers every audit status request with status (a status reply, type 1000).
class StatusReplies : public Engine::AuditReplySource {
public:
    int Open() override { return 3; }
    int RequestStatus(int) override { return 1; }
    int Poll(int, int) override { return 1; }
    int GetReply(int, audit_reply& reply) override;
    void Close(int) override {}
    audit_status status{};
    int asked = 0;  ///< status replies given
};

/// A usable audit system without the kernel: a process whose executable is called auditd, a
/// status that names it with audit enabled, and an auditd configuration whose log is a file here.
class FakeAuditSystem {
public:
    FakeAuditSystem();
    ~FakeAuditSystem();
    TempDir dir;
    StatusReplies replies;
    std::string logFile;  ///< holds one line at the start
    std::string conf;     ///< the configuration naming logFile

private:
    pid_t auditd_ = -1;
};

/// A subscriber task that keeps every AuditEventMessage it receives (call Drain to dispatch).
class Subscriber : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    explicit Subscriber(const std::string& name = "sub_task", size_t capacity = 4096);
    int Receive(const Engine::AuditEventMessage& msg) override;
    /// Dispatches everything queued; returns the messages received so far.
    const std::vector<std::pair<std::string, std::shared_ptr<Engine::AuditEvent>>>& Drain();
    std::vector<std::pair<std::string, std::shared_ptr<Engine::AuditEvent>>> received;  ///< (tag, event)
};

/// A plain task, for senders and owners.
class NamedTask : public Framework::Task {
public:
    explicit NamedTask(const std::string& name) : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 64) {}
};

/// A small deterministic generator (xorshift64) for mutation tests.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t operator()()
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }

private:
    uint64_t state_;
};

/// Decodes the lines of one event as record assembly would, delivering nowhere; result gets
/// ParseAndDeliverLogs' code.
std::shared_ptr<Engine::AuditEvent> DecodeEvent(const std::vector<std::string>& lines, int* result = nullptr);

/// The lines of a file, without newlines.
std::vector<std::string> ReadLines(const std::string& path);
/// The project's capture fixtures directory, ending in "/".
std::string FixturesDir();
/// The lines of the capture whose stamp has this serial, in file order.
std::vector<std::string> EventLines(const std::string& capture, unsigned long serial);

}  // namespace TestSupport
