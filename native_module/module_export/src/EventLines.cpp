#include "EventLines.h"

#include "EventJson.h"
#include "HostEnrichment.h"

namespace Export {

EventLines::EventLines(const LineOptions& options, std::unique_ptr<Enrichment> enrichment) : options_(options)
{
    if (options_.flat) {
        return;
    }
    enrichment_ = enrichment ? std::move(enrichment) : std::make_unique<HostEnrichment>(options_.maxArgBytes);
    EcsSettings settings = HostEcsSettings();
    settings.original = options_.original;
    settings.maxArgBytes = options_.maxArgBytes;
    encoder_ = std::make_unique<EcsEncoder>(std::move(settings), *enrichment_);
}

EventLines::~EventLines() = default;

void EventLines::AppendEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag)
{
    if (encoder_) {
        encoder_->AppendEvent(line, event, tag);
    } else {
        AppendDecodedEvent(line, event, tag);
    }
}

void EventLines::AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                                    const FileChange* change)
{
    if (encoder_) {
        encoder_->AppendNotification(line, result, tag, change);
    } else {
        ::Export::AppendNotification(line, result, tag, change);
    }
}

void EventLines::AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs)
{
    if (encoder_) {
        encoder_->AppendNotice(line, notice, timeMs);
    } else {
        ::Export::AppendNotice(line, notice, timeMs);
    }
}

}  // namespace Export
