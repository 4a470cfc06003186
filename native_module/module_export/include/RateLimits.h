#pragma once

#include "AgentNotice.h"
#include "IdNames.h"

#include "AuditMessages.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Export {

/// Rate limits of subscriptions, in events a second: a subscription may burst to one second's
/// worth, then passes events at its rate. What exceeds it is dropped and counted by the user and
/// program that caused it, and summarised once per period, so a flood points at its author.
/// Used from one thread.
class RateLimits {
public:
    using Clock = std::chrono::steady_clock;
    /// How often the dropped events of a subscription are summarised.
    static constexpr std::chrono::seconds kSummaryPeriod{10};
    /// Distinct users, and programs, counted per summary; further ones only in the total.
    static constexpr size_t kMaxCauses = 256;
    /// Users, and programs, a summary names.
    static constexpr size_t kNamedCauses = 3;

    /// Limits tag to perSecond events a second; 0 takes its limit away.
    void Set(const std::string& tag, uint32_t perSecond);

    /// True when an event of tag may pass at now. When not, it is counted, and who() gives the
    /// user id and program that caused it (asked only then).
    template <typename Who>
    bool Admit(const std::string& tag, Clock::time_point now, Who&& who)
    {
        const auto found = limits_.find(tag);
        if (found == limits_.end() || found->second.Take(now)) {
            return true;
        }
        const std::pair<std::string, std::string> cause = who();
        found->second.Blame(now, cause.first, cause.second);
        return false;
    }

    /// The summaries due at now (a period after a subscription's first dropped event), or every
    /// pending one when all is set (at the end), with the users' names from this host; each is
    /// counted afresh afterwards.
    std::vector<AgentNotice> TakeSummaries(Clock::time_point now, bool all = false);

private:
    struct Limit {
        double perSecond = 0;
        double tokens = 0;
        Clock::time_point refilled;
        uint64_t dropped = 0;
        Clock::time_point firstDrop;
        std::unordered_map<std::string, uint64_t> users;
        std::unordered_map<std::string, uint64_t> programs;

        bool Take(Clock::time_point now);
        void Blame(Clock::time_point now, const std::string& user, const std::string& program);
    };
    std::unordered_map<std::string, Limit> limits_;
    IdNames names_;
};

/// Who caused an audit event or file notification: the real user id and the executable of the
/// system call's process.
std::pair<std::string, std::string> MessageAuthor(const Engine::AuditEventMessage& msg);

}  // namespace Export
