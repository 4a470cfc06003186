#pragma once

#include "sdk/JsonWriter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Export {

/// Who caused a share of the events a notice is about.
struct NoticeCause {
    std::string id;       ///< the user id, or the program's executable
    std::string name;     ///< the user's name; empty when unknown, and for programs
    uint64_t events = 0;
};

/// What the agent says in its own output about events it did not write: a subscription's rate
/// limit dropped them, or the output could not take them whole.
struct AgentNotice {
    std::string action;               ///< kRateLimited or kOutputLost
    std::string tag;                  ///< the subscription concerned; empty for the whole output
    uint64_t dropped = 0;             ///< events not written
    uint64_t seconds = 0;             ///< over how long
    uint32_t limit = 0;               ///< events a second (rate-limited only)
    std::vector<NoticeCause> users;     ///< those who caused most of it, most first
    std::vector<NoticeCause> programs;  ///< likewise

    static constexpr const char* kRateLimited = "rate-limited";
    static constexpr const char* kOutputLost = "output-lost";
};

/// The notice as one sentence for people: "subscription connect: 41234 events over its limit of
/// 5000 a second dropped in 10 s; most from user nobody (65534): 41234; program /usr/bin/nc:
/// 41234".
std::string NoticeMessage(const AgentNotice& notice);

/// The notice's members of a JSON line, in both formats: message (NoticeMessage), and
/// hostwarden.notice with action, dropped, seconds, and for a rate limit its limit and the users
/// ({id, name, events}) and programs ({executable, events}) that caused most of it.
void AppendNoticeFields(SDK::JsonWriter& json, const AgentNotice& notice);

}  // namespace Export
