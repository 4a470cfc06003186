#include "AgentNotice.h"

namespace Export {

namespace {

void Causes(SDK::JsonWriter& json, const char* key, const std::vector<NoticeCause>& causes, const char* idKey)
{
    json.Key(key);
    json.BeginArray();
    for (const NoticeCause& cause : causes) {
        json.BeginObject();
        json.Field(idKey, cause.id);
        if (!cause.name.empty()) {
            json.Field("name", cause.name);
        }
        json.Field("events", cause.events);
        json.EndObject();
    }
    json.EndArray();
}

}  // namespace

std::string NoticeMessage(const AgentNotice& notice)
{
    const auto causes = [](const char* what, const std::vector<NoticeCause>& list) {
        std::string text;
        for (const NoticeCause& cause : list) {
            text += (text.empty() ? std::string("; ") + what + " " : std::string(", ")) +
                    (cause.name.empty() ? cause.id : cause.name + " (" + cause.id + ")") + ": " +
                    std::to_string(cause.events);
        }
        return text;
    };
    const std::string subject = notice.tag.empty() ? std::string("output") : "subscription " + notice.tag;
    const std::string count = std::to_string(notice.dropped) + " events ";
    const std::string over = " in " + std::to_string(notice.seconds) + " s";
    if (notice.action == AgentNotice::kRateLimited) {
        return subject + ": " + count + "over its limit of " + std::to_string(notice.limit) + " a second dropped" +
               over + causes("most from user", notice.users) + causes("program", notice.programs);
    }
    return subject + ": " + count + "could not be written whole and were lost" + over;
}

void AppendNoticeFields(SDK::JsonWriter& json, const AgentNotice& notice)
{
    json.Field("message", NoticeMessage(notice));
    json.Key("hostwarden");
    json.BeginObject();
    json.Key("notice");
    json.BeginObject();
    json.Field("action", notice.action);
    json.Field("dropped", notice.dropped);
    json.Field("seconds", notice.seconds);
    if (notice.action == AgentNotice::kRateLimited) {
        json.Field("limit", notice.limit);
        Causes(json, "users", notice.users, "id");
        Causes(json, "programs", notice.programs, "executable");
    }
    json.EndObject();
    json.EndObject();
}

}  // namespace Export
