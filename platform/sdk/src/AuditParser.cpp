#include "sdk/AuditParser.h"

#include <algorithm>
#include <cstring>

namespace SDK {

// ---- AuditFields / AuditEvent -----------------------------------------------------------------

void AuditFields::StoreSlot(size_t index, const Slot& slot)
{
    std::memcpy(&data_[slotsAt_ + index * sizeof(Slot)], &slot, sizeof(Slot));
}

int AuditFields::IndexOf(std::string_view name) const
{
    for (size_t i = 0; i < count_; ++i) {
        const Slot slot = SlotAt(i);
        if (std::string_view(data_.data() + slot.name, slot.nameLen) == name) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

std::string_view AuditFields::View(std::string_view name) const
{
    const int index = IndexOf(name);
    return index < 0 ? std::string_view() : At(static_cast<size_t>(index)).second;
}

bool AuditFields::Has(std::string_view name) const
{
    return IndexOf(name) >= 0;
}

uint32_t AuditFields::Append(std::string_view text)
{
    const auto offset = static_cast<uint32_t>(data_.size());
    data_.append(text);
    return offset;
}

void AuditFields::Add(std::string_view name, std::string_view value)
{
    // The slot table must stay contiguous: move it behind the new text.
    const std::string copy = std::string(name) + std::string(value);  // either may view data_
    std::string slots = data_.substr(slotsAt_, count_ * sizeof(Slot));
    data_.resize(slotsAt_);
    const uint32_t nameAt = Append(copy.substr(0, name.size()));
    const uint32_t valueAt = Append(copy.substr(name.size()));
    slotsAt_ = static_cast<uint32_t>(data_.size());
    data_.append(slots);
    const Slot slot{nameAt, static_cast<uint32_t>(name.size()), valueAt, static_cast<uint32_t>(value.size())};
    data_.append(reinterpret_cast<const char*>(&slot), sizeof(slot));
    ++count_;
}

void AuditFields::Set(std::string_view name, std::string_view value)
{
    const int index = IndexOf(name);
    if (index < 0) {
        Add(name, value);
        return;
    }
    // The old value stays in data_ unreferenced; records are short-lived.
    const std::string copy(value);  // value may view data_, which Append can move
    Slot slot = SlotAt(static_cast<size_t>(index));
    slot.value = Append(copy);
    slot.valueLen = static_cast<uint32_t>(copy.size());
    StoreSlot(static_cast<size_t>(index), slot);
}

void AuditFields::Clear()
{
    data_.clear();
    slotsAt_ = 0;
    count_ = 0;
}

bool AuditFields::operator==(const AuditFields& other) const
{
    if (size() != other.size()) {
        return false;
    }
    for (size_t i = 0; i < size(); ++i) {
        if (At(i) != other.At(i)) {
            return false;
        }
    }
    return true;
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

}  // namespace

// Field slots of the line being parsed: on the stack, spilling into a vector past its size.
class AuditParser::SlotTable {
public:
    void push_back(const AuditFields::Slot& slot)
    {
        if (count_ < kInline) {
            inline_[count_] = slot;
        } else {
            spill_.push_back(slot);
        }
        ++count_;
    }
    size_t size() const { return count_; }
    void AppendTo(std::string& data) const
    {
        const size_t inlineCount = count_ < kInline ? count_ : kInline;
        data.append(reinterpret_cast<const char*>(inline_), inlineCount * sizeof(AuditFields::Slot));
        data.append(reinterpret_cast<const char*>(spill_.data()), spill_.size() * sizeof(AuditFields::Slot));
    }

private:
    static constexpr size_t kInline = 96;
    AuditFields::Slot inline_[kInline];
    std::vector<AuditFields::Slot> spill_;
    size_t count_ = 0;
};

namespace {

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
    AuditFields& fields = record.fields;
    fields.Clear();

    std::string_view rest = line;
    std::string_view token = NextToken(rest);
    std::string_view node;
    if (token.substr(0, 5) == "node=") {
        node = token.substr(5);
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

    // Field names and values become offsets into one copy of the text: the node value, the
    // rest of the line, then "node" when there is one. Slots are collected on the stack (a
    // record with more fields than that spills into a vector) and copied behind the text, so
    // the record usually takes exactly one allocation.
    SlotTable slots;
    const auto shift = static_cast<uint32_t>(node.size());
    if (!node.empty()) {
        const auto nodeNameAt = static_cast<uint32_t>(node.size() + rest.size());
        slots.push_back(AuditFields::Slot{nodeNameAt, 4, 0, shift});
    }
    // Tokens are separated by spaces; a token without '=' (or starting with it) carries no
    // field, like the words of an AVC record. memchr does the scanning: long hex values
    // (proctitle) dominate the bytes.
    bool inUserMessage = false;  // inside msg='...' of a user-space record
    const char* const base = rest.data();
    const char* p = base;
    const char* const end = base + rest.size();
    while (p < end) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        const char* tokenEnd = static_cast<const char*>(std::memchr(p, ' ', static_cast<size_t>(end - p)));
        if (tokenEnd == nullptr) {
            tokenEnd = end;
        }
        const char* eq = p;  // names are short: a plain loop beats another memchr call
        while (eq < tokenEnd && *eq != '=') {
            ++eq;
        }
        if (eq == tokenEnd) {
            eq = nullptr;
        }
        const char* name = p;
        p = tokenEnd;
        if (eq == nullptr || eq == name) {
            continue;
        }
        const char* value = eq + 1;
        const char* valueEnd = tokenEnd;
        if (!inUserMessage && eq - name == 3 && std::memcmp(name, "msg", 3) == 0 && value < valueEnd && *value == '\'') {
            // msg='op=... res=x': the wrapper holds the record's real fields.
            inUserMessage = true;
            name = value + 1;
            eq = static_cast<const char*>(std::memchr(name, '=', static_cast<size_t>(valueEnd - name)));
            if (eq == nullptr || eq == name) {
                continue;
            }
            value = eq + 1;
        }
        if (inUserMessage && value < valueEnd && valueEnd[-1] == '\'') {
            --valueEnd;
            inUserMessage = false;
        }
        slots.push_back(AuditFields::Slot{shift + static_cast<uint32_t>(name - base), static_cast<uint32_t>(eq - name),
                                          shift + static_cast<uint32_t>(value - base),
                                          static_cast<uint32_t>(valueEnd - value)});
    }
    std::string& data = fields.data_;
    const size_t textSize = node.size() + rest.size() + (node.empty() ? 0 : 4);
    data.reserve(textSize + slots.size() * sizeof(AuditFields::Slot));
    data.append(node);
    data.append(rest);
    if (!node.empty()) {
        data.append("node");
    }
    fields.slotsAt_ = static_cast<uint32_t>(data.size());
    slots.AppendTo(data);
    fields.count_ = static_cast<uint32_t>(slots.size());
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
