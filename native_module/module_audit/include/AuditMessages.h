#pragma once

#include "AuditEvent.h"
#include "AuditExport.h"

#include "framework/Message.h"
#include "framework/Task.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

// Everything here is defined in this header: other modules use these messages without linking
// the module's code.

/// Options of a file watch, shared with the agent's other file-notification users. The audit
/// module reads only `recursive` and, through AuditFileSystemCtrlMessage::unwatch, the sixth flag.
struct HW_AUDIT_API _FileNotifyOpt {
    bool recursive = false;  ///< the watch covers every descendant, not only direct children
    bool flag2 = false;
    bool flag3 = false;
    bool flag4 = false;
    bool flag5 = false;
    bool flag6 = false;      ///< asks for the watch to be removed (becomes `unwatch`)
    bool flag7 = true;
    bool flag8 = false;
    std::vector<uint32_t> list1;
    int64_t count = 0;
    std::vector<std::string> list2;
    std::vector<std::string> list3;
    bool flag9 = false;
    int32_t number = 0;
    bool flag10 = false;
};

namespace Engine {

/// The name of a message's sender task; empty for a message without one.
inline std::string SenderName(const Framework::Task* sender)
{
    return sender == nullptr ? std::string() : sender->GetName();
}

/// Base of every message the module exchanges: dispatches a message of type T to the receiving
/// task's Receive(const T&), when the task implements AbstructMessage<T>::Receiver.
template <typename T>
class HW_AUDIT_API AbstructMessage : public Framework::Message {
public:
    /// Implemented by tasks that accept messages of type T.
    class HW_AUDIT_API Receiver {
    public:
        /// Handles one message on the receiving task's thread.
        virtual int Receive(const T& msg) = 0;
        virtual ~Receiver() = default;
    };

    /// Calls the task's Receive; -1 for a null task or one that does not accept T.
    int MessageHandle(void* task) override
    {
        if (task == nullptr) {
            return -1;
        }
        auto* receiver = dynamic_cast<Receiver*>(static_cast<Framework::Task*>(task));
        if (receiver == nullptr) {
            return -1;
        }
        return receiver->Receive(static_cast<const T&>(*this));
    }
};

/// A subscriber gives up all its subscriptions.
class HW_AUDIT_API AuditUnsubscribeMessage : public AbstructMessage<AuditUnsubscribeMessage> {
public:
    explicit AuditUnsubscribeMessage(Framework::Task* from = nullptr) : sender(from) {}
    Framework::Task* sender;  ///< the subscriber; not owned
};

/// Subscribes (operate "-a") or removes (any other operate) a system-call rule.
class HW_AUDIT_API AuditSyscallCtrlMessage : public AbstructMessage<AuditSyscallCtrlMessage> {
public:
    explicit AuditSyscallCtrlMessage(Framework::Task* from = nullptr) : sender(from) {}
    Framework::Task* sender;  ///< the subscriber; events go back to it; not owned
    std::string tag;          ///< the subscriber's label, copied into every event message
    std::string operate;      ///< "-a" or "-w" add; anything else removes
    std::string rule;         ///< rule text in auditctl syntax, optionally with -k
};

/// Subscribes or removes a file-system rule (a watch).
class HW_AUDIT_API AuditFileSystemCtrlMessage : public AbstructMessage<AuditFileSystemCtrlMessage> {
public:
    /// events are OR-ed into one mask. Of opt only the recursive flag, the second, fifth and
    /// sixth flags are taken (the sixth as unwatch); everything else keeps its default.
    AuditFileSystemCtrlMessage(Framework::Task* from, const std::string& watchPath, std::vector<unsigned int> eventCodes,
                               const _FileNotifyOpt& options)
        : sender(from)
    {
        for (const unsigned int code : eventCodes) {
            events |= code;
        }
        path = watchPath;
        // KEPT: only these option bytes travel with the message; lists, counters and the other
        // flags keep their defaults whatever the caller set.
        unwatch = options.flag6;
        opt.recursive = options.recursive;
        opt.flag2 = options.flag2;
        opt.flag5 = options.flag5;
    }

    Framework::Task* sender;  ///< the subscriber; not owned
    std::string tag;
    std::string operate;
    std::string rule;
    bool unwatch = false;     ///< remove the watch on path instead of adding it
    std::string path;         ///< the file or directory to watch
    _FileNotifyOpt opt;
    uint32_t events = 0;      ///< event mask
};

/// Keys of a notification's extra map besides the SYSCALL record's fields: its event's time
/// (milliseconds since the epoch) and serial number, in decimal.
inline constexpr const char* kNotifyTimeMs = "time_ms";
inline constexpr const char* kNotifySerial = "serial";

/// The payload of a file notification.
struct HW_AUDIT_API AuditEventResult {
    std::string path;      ///< the file the notification is about
    int32_t event = -1;    ///< inotify-style event code; -1 for an audit event delivery
    bool isDir = false;
    std::string destPath;  ///< new name of a move
    std::unordered_map<std::string, std::string> extra{10};
};

/// An audit event (event set) or a file notification (result set) for a subscriber.
class HW_AUDIT_API AuditEventMessage : public AbstructMessage<AuditEventMessage> {
public:
    AuditEventMessage() = default;
    /// A file notification; the sender is not stored.
    AuditEventMessage(Framework::Task* from, const std::string& path, const std::string& destPath, int eventCode,
                      bool isDir, const std::unordered_map<std::string, std::string>& extra)
    {
        (void)from;
        result.path = path;
        result.destPath = destPath;
        result.event = eventCode;
        result.isDir = isDir;
        result.extra = extra;
    }

    std::string tag;                    ///< tag of the matching subscription
    std::shared_ptr<AuditEvent> event;  ///< the decoded event, shared by every message made of it
    AuditEventResult result;            ///< the notification; empty for audit event deliveries
};

}  // namespace Engine
