#include "RateLimits.h"

#include "sdk/AuditParser.h"

#include <algorithm>
#include <charconv>

namespace Export {

namespace {

void Count(std::unordered_map<std::string, uint64_t>& counts, const std::string& who)
{
    const auto found = counts.find(who);
    if (found != counts.end()) {
        ++found->second;
    } else if (counts.size() < RateLimits::kMaxCauses) {
        counts.emplace(who, 1);
    }
}

std::vector<NoticeCause> Most(const std::unordered_map<std::string, uint64_t>& counts)
{
    std::vector<NoticeCause> causes;
    causes.reserve(counts.size());
    for (const auto& [who, events] : counts) {
        causes.push_back(NoticeCause{who, "", events});
    }
    const size_t named = std::min(causes.size(), RateLimits::kNamedCauses);
    std::partial_sort(causes.begin(), causes.begin() + static_cast<std::ptrdiff_t>(named), causes.end(),
                      [](const NoticeCause& a, const NoticeCause& b) {
                          return a.events != b.events ? a.events > b.events : a.id < b.id;
                      });
    causes.resize(named);
    return causes;
}

}  // namespace

void RateLimits::Set(const std::string& tag, uint32_t perSecond)
{
    if (perSecond == 0) {
        limits_.erase(tag);
        return;
    }
    Limit& limit = limits_[tag];
    limit.perSecond = perSecond;
    limit.tokens = perSecond;
}

bool RateLimits::Limit::Take(Clock::time_point now)
{
    if (now > refilled) {
        const double seconds = std::chrono::duration<double>(now - refilled).count();
        tokens = std::min(perSecond, tokens + seconds * perSecond);
        refilled = now;
    }
    if (tokens >= 1) {
        tokens -= 1;
        return true;
    }
    return false;
}

void RateLimits::Limit::Blame(Clock::time_point now, const std::string& user, const std::string& program)
{
    if (dropped++ == 0) {
        firstDrop = now;
    }
    Count(users, user);
    Count(programs, program);
}

std::vector<AgentNotice> RateLimits::TakeSummaries(Clock::time_point now, bool all)
{
    std::vector<AgentNotice> notices;
    for (auto& [tag, limit] : limits_) {
        if (limit.dropped == 0 || (!all && now - limit.firstDrop < kSummaryPeriod)) {
            continue;
        }
        AgentNotice notice;
        notice.action = AgentNotice::kRateLimited;
        notice.tag = tag;
        notice.dropped = limit.dropped;
        notice.seconds = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now - limit.firstDrop).count());
        notice.limit = static_cast<uint32_t>(limit.perSecond);
        notice.users = Most(limit.users);
        for (NoticeCause& user : notice.users) {
            uint32_t uid = 0;
            const char* end = user.id.data() + user.id.size();
            if (!user.id.empty() && std::from_chars(user.id.data(), end, uid).ptr == end) {
                names_.UserName("", uid, user.name);
            }
        }
        notice.programs = Most(limit.programs);
        notices.push_back(std::move(notice));
        limit.dropped = 0;
        limit.users.clear();
        limit.programs.clear();
    }
    std::sort(notices.begin(), notices.end(), [](const AgentNotice& a, const AgentNotice& b) { return a.tag < b.tag; });
    return notices;
}

std::pair<std::string, std::string> MessageAuthor(const Engine::AuditEventMessage& msg)
{
    if (msg.event) {
        const SDK::AuditFields* syscall = msg.event->parsedEvent.FindRecord("SYSCALL");
        return {syscall != nullptr ? syscall->Get("uid") : std::string(), msg.event->exe};
    }
    const auto field = [&](const char* name) {
        const auto found = msg.result.extra.find(name);
        return found != msg.result.extra.end() ? found->second : std::string();
    };
    return {field("uid"), SDK::AuditValueText(field("exe"))};
}

}  // namespace Export
