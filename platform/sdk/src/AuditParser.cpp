#include "sdk/AuditParser.h"

#include <cstring>

namespace SDK {

// ---- AuditFields / AuditEvent -----------------------------------------------------------------

const std::string* AuditFields::Find(std::string_view name) const
{
    for (const Field& field : fields_) {
        if (field.first == name) {
            return &field.second;
        }
    }
    return nullptr;
}

std::string AuditFields::Get(std::string_view name) const
{
    const std::string* value = Find(name);
    return value == nullptr ? std::string() : *value;
}

void AuditFields::Set(std::string_view name, std::string value)
{
    for (Field& field : fields_) {
        if (field.first == name) {
            field.second = std::move(value);
            return;
        }
    }
    fields_.emplace_back(std::string(name), std::move(value));
}

const AuditFields* AuditEvent::FindRecord(std::string_view type) const
{
    for (const AuditRecord& record : records) {
        if (record.type == type) {
            return &record.fields;
        }
    }
    return nullptr;
}

AuditFields* AuditEvent::FindRecord(std::string_view type)
{
    return const_cast<AuditFields*>(static_cast<const AuditEvent*>(this)->FindRecord(type));
}

std::vector<const AuditFields*> AuditEvent::FindRecords(std::string_view type) const
{
    std::vector<const AuditFields*> found;
    for (const AuditRecord& record : records) {
        if (record.type == type) {
            found.push_back(&record.fields);
        }
    }
    return found;
}

// ---- line parsing -----------------------------------------------------------------------------

namespace {

constexpr char kEnrichedSeparator = '\x1d';
constexpr std::string_view kStampOpen = "msg=audit(";

bool ParseUnsigned(std::string_view text, uint64_t& value)
{
    if (text.empty() || text.size() > 19) {
        return false;
    }
    value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

// The next space-delimited token of rest (runs of spaces are skipped); rest moves past it.
std::string_view NextToken(std::string_view& rest)
{
    const size_t start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        rest = {};
        return {};
    }
    const size_t end = rest.find(' ', start);
    const std::string_view token = rest.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    return token;
}

// "SECONDS.MILLIS:SERIAL" into milliseconds and serial.
bool ParseStamp(std::string_view stamp, uint64_t header[2])
{
    const size_t dot = stamp.find('.');
    const size_t colon = stamp.find(':');
    if (dot == std::string_view::npos || colon == std::string_view::npos || colon < dot) {
        return false;
    }
    uint64_t seconds = 0;
    uint64_t millis = 0;
    uint64_t serial = 0;
    if (!ParseUnsigned(stamp.substr(0, dot), seconds) || !ParseUnsigned(stamp.substr(dot + 1, colon - dot - 1), millis) ||
        !ParseUnsigned(stamp.substr(colon + 1), serial)) {
        return false;
    }
    header[0] = seconds * 1000 + millis;
    header[1] = serial;
    return true;
}

}  // namespace

bool AuditParser::ParseLine(std::string_view line, uint64_t header[2], AuditRecord& record)
{
    const size_t enriched = line.find(kEnrichedSeparator);
    if (enriched != std::string_view::npos) {
        line = line.substr(0, enriched);
    }
    record.type.clear();
    record.fields.Clear();

    std::string_view rest = line;
    std::string_view token = NextToken(rest);
    if (token.substr(0, 5) == "node=") {
        record.fields.Add("node", std::string(token.substr(5)));
        token = NextToken(rest);
    }
    if (token.substr(0, 5) != "type=" || token.size() == 5) {
        return false;
    }
    record.type.assign(token.substr(5));

    // The stamp: msg=audit(SECONDS.MILLIS:SERIAL): directly followed by the fields.
    const size_t open = rest.find_first_not_of(' ');
    if (open == std::string_view::npos || rest.substr(open, kStampOpen.size()) != kStampOpen) {
        return false;
    }
    rest = rest.substr(open + kStampOpen.size());
    const size_t close = rest.find("):");
    if (close == std::string_view::npos || !ParseStamp(rest.substr(0, close), header)) {
        return false;
    }
    rest = rest.substr(close + 2);

    record.fields.Reserve(40);
    bool inUserMessage = false;  // inside msg='...' of a user-space record
    while (!(token = NextToken(rest)).empty()) {
        const size_t eq = token.find('=');
        if (eq == std::string_view::npos || eq == 0) {
            continue;  // words such as "avc:" or "denied" carry no field
        }
        std::string_view name = token.substr(0, eq);
        std::string_view value = token.substr(eq + 1);
        if (!inUserMessage && name == "msg" && !value.empty() && value.front() == '\'') {
            // msg='op=... res=x': the wrapper holds the record's real fields.
            inUserMessage = true;
            token = value.substr(1);
            const size_t innerEq = token.find('=');
            if (innerEq == std::string_view::npos || innerEq == 0) {
                continue;
            }
            name = token.substr(0, innerEq);
            value = token.substr(innerEq + 1);
        }
        if (inUserMessage && !value.empty() && value.back() == '\'') {
            value.remove_suffix(1);
            inUserMessage = false;
        }
        record.fields.Add(std::string(name), std::string(value));
    }
    return true;
}

bool AuditParser::FeedLine(const std::string& line)
{
    uint64_t header[2] = {0, 0};
    AuditRecord record;
    if (!ParseLine(line, header, record)) {
        return false;
    }
    if (!open_ || events_.empty() || events_.back().header[0] != header[0] || events_.back().header[1] != header[1]) {
        events_.emplace_back();
        events_.back().header[0] = header[0];
        events_.back().header[1] = header[1];
        events_.back().records.reserve(8);
        open_ = true;
    }
    events_.back().records.push_back(std::move(record));
    return true;
}

std::vector<AuditEvent> AuditParser::TakeEvents()
{
    std::vector<AuditEvent> done;
    if (open_ && !events_.empty()) {
        AuditEvent last = std::move(events_.back());
        events_.pop_back();
        done.swap(events_);
        events_.push_back(std::move(last));
    } else {
        done.swap(events_);
    }
    return done;
}

}  // namespace SDK
