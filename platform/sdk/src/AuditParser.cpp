#include "sdk/AuditParser.h"

#include <algorithm>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
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
    // The slot table must stay contiguous: append the new text, then a fresh copy of the table
    // with the new slot; the old table becomes dead bytes. Values appended by Set stay put.
    const std::string copy = std::string(name) + std::string(value);  // either may view data_
    const std::string slots = data_.substr(slotsAt_, count_ * sizeof(Slot));
    const uint32_t nameAt = Append(std::string_view(copy).substr(0, name.size()));
    const uint32_t valueAt = Append(std::string_view(copy).substr(name.size()));
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
    Slot slot = SlotAt(static_cast<size_t>(index));
    const char* const begin = data_.data();
    if (value.data() >= begin && value.data() + value.size() <= begin + data_.size()) {
        // A part of the record's own text (such as a value without its quotes): point at it.
        slot.value = static_cast<uint32_t>(value.data() - begin);
        slot.valueLen = static_cast<uint32_t>(value.size());
    } else {
        // The old value stays in data_ unreferenced; records are short-lived.
        slot.value = Append(value);
        slot.valueLen = static_cast<uint32_t>(value.size());
    }
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
        const auto digit = static_cast<unsigned>(static_cast<unsigned char>(c) - '0');
        if (digit > 9) {
            return false;
        }
        value = value * 10 + digit;
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

// Bit i of spaces (equals) is set when byte i of the next 16 bytes is ' ' ('='); bytes past
// `left` count as neither.
inline void ClassifyBlock(const char* p, size_t left, uint32_t& spaces, uint32_t& equals)
{
#if defined(__SSE2__)
    __m128i bytes;
    if (left >= 16) {
        bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    } else {
        alignas(16) char tail[16] = {0};
        std::memcpy(tail, p, left);
        bytes = _mm_load_si128(reinterpret_cast<const __m128i*>(tail));
    }
    spaces = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(' '))));
    equals = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('='))));
#else
    spaces = 0;
    equals = 0;
    const size_t count = left < 16 ? left : 16;
    for (size_t i = 0; i < count; ++i) {
        spaces |= static_cast<uint32_t>(p[i] == ' ') << i;
        equals |= static_cast<uint32_t>(p[i] == '=') << i;
    }
#endif
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
    return ParseLine(line, header, record, nullptr);
}

bool AuditParser::ParseLine(std::string_view line, uint64_t header[2], AuditRecord& record, StampCache* cache)
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
    if (close == std::string_view::npos) {
        return false;
    }
    // The lines of one event repeat its stamp: reuse the numbers of the previous line's.
    const std::string_view stamp = rest.substr(0, close);
    if (cache != nullptr && cache->size != 0 && stamp == cache->View()) {
        header[0] = cache->header[0];
        header[1] = cache->header[1];
    } else {
        if (!ParseStamp(stamp, header)) {
            return false;
        }
        if (cache != nullptr && stamp.size() <= sizeof(cache->text)) {
            std::memcpy(cache->text, stamp.data(), stamp.size());
            cache->size = stamp.size();
            cache->header[0] = header[0];
            cache->header[1] = header[1];
        }
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
    // field, like the words of an AVC record. Spaces and '=' are located 16 bytes at a time, so
    // the long hex values (proctitle) cost little.
    bool inUserMessage = false;  // inside msg='...' of a user-space record
    const char* const base = rest.data();
    const size_t size = rest.size();
    size_t tokenStart = 0;
    size_t eq = std::string_view::npos;  // first '=' of the current token
    const auto emit = [&](size_t tokenEnd) __attribute__((always_inline)) {
        if (eq == std::string_view::npos || eq == tokenStart || tokenEnd <= tokenStart) {
            return;
        }
        size_t name = tokenStart;
        size_t nameEnd = eq;
        size_t value = eq + 1;
        size_t valueEnd = tokenEnd;
        if (!inUserMessage && nameEnd - name == 3 && std::memcmp(base + name, "msg", 3) == 0 && value < valueEnd &&
            base[value] == '\'') {
            // msg='op=... res=x': the wrapper holds the record's real fields.
            inUserMessage = true;
            name = value + 1;
            const void* inner = std::memchr(base + name, '=', valueEnd - name);
            if (inner == nullptr || inner == base + name) {
                return;
            }
            nameEnd = static_cast<size_t>(static_cast<const char*>(inner) - base);
            value = nameEnd + 1;
        }
        if (inUserMessage && value < valueEnd && base[valueEnd - 1] == '\'') {
            --valueEnd;
            inUserMessage = false;
        }
        slots.push_back(AuditFields::Slot{shift + static_cast<uint32_t>(name), static_cast<uint32_t>(nameEnd - name),
                                          shift + static_cast<uint32_t>(value), static_cast<uint32_t>(valueEnd - value)});
    };
    for (size_t block = 0; block < size; block += 16) {
        uint32_t spaces = 0;
        uint32_t equals = 0;
        ClassifyBlock(base + block, size - block, spaces, equals);
        uint32_t marks = spaces | equals;
        while (marks != 0) {
            const unsigned bit = static_cast<unsigned>(__builtin_ctz(marks));
            marks &= marks - 1;
            const size_t at = block + bit;
            if ((spaces >> bit) & 1U) {
                emit(at);
                tokenStart = at + 1;
                eq = std::string_view::npos;
            } else if (eq == std::string_view::npos) {
                eq = at;
            }
        }
    }
    emit(size);
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
    if (!ParseLine(line, header, record, &stampCache_)) {
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

namespace SDK {

namespace {

int HexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

}  // namespace

std::string AuditValueText(std::string_view raw)
{
    if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
        return std::string(raw.substr(1, raw.size() - 2));
    }
    if (raw.empty() || raw.size() % 2 != 0) {
        return std::string(raw);
    }
    std::string text(raw.size() / 2, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        const int high = HexDigit(raw[2 * i]);
        const int low = HexDigit(raw[2 * i + 1]);
        if (high < 0 || low < 0) {
            return std::string(raw);
        }
        text[i] = static_cast<char>(high * 16 + low);
    }
    return text;
}

}  // namespace SDK
