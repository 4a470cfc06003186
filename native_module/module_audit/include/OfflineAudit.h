#pragma once

#include <memory>
#include <string>

namespace Framework {
class Task;
}

// The module's own reading of rules and log lines, for tools that run without a kernel or a
// loaded module (the agent's decode command and its configuration check). They link the
// module's code; everything else reaches the module through messages.

namespace Engine {

/// What the audit task would make of a system-call rule text, without asking the kernel: empty
/// when it would install it, else why not (refused, never or exclude, an unknown system call).
std::string SyscallRuleProblem(const std::string& text);

/// Audit log lines through the audit task's assembly, decoding and delivery, with a route under
/// every system call of both architectures: every event is delivered to the receiver's queue.
class OfflineDecoder {
public:
    /// receiver gets an AuditEventMessage per event (tag "decode"); it must outlive the decoder.
    explicit OfflineDecoder(Framework::Task* receiver);
    ~OfflineDecoder();
    OfflineDecoder(const OfflineDecoder&) = delete;
    OfflineDecoder& operator=(const OfflineDecoder&) = delete;

    /// One line of the log; at most one event is delivered per line.
    void Line(const std::string& line);
    /// The input has ended: the event still being assembled is delivered.
    void End();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Engine
