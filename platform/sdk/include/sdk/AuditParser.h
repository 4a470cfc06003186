#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SDK {

/// The fields of one audit record in the order they were written. Values are kept exactly as
/// written: quotes kept, hexadecimal kept. A name may occur twice; lookups see the first.
///
/// The record's text and the table of field offsets share one buffer, so a parsed record costs
/// one allocation however many fields it has. Views handed out stay valid until the next Set,
/// Add or Clear.
class AuditFields {
public:
    using Field = std::pair<std::string_view, std::string_view>;

    /// Iterates the fields in record order as (name, value) views.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Field;
        using difference_type = std::ptrdiff_t;
        using pointer = const Field*;
        using reference = Field;
        const_iterator(const AuditFields* owner, size_t index) : owner_(owner), index_(index) {}
        Field operator*() const { return owner_->At(index_); }
        const_iterator& operator++() { ++index_; return *this; }
        const_iterator operator++(int) { const_iterator old = *this; ++index_; return old; }
        bool operator==(const const_iterator& other) const { return index_ == other.index_; }
        bool operator!=(const const_iterator& other) const { return index_ != other.index_; }

    private:
        const AuditFields* owner_;
        size_t index_;
    };

    /// The value of name; empty when the record has no such field (see Has).
    std::string_view View(std::string_view name) const;
    /// The value of name as a text of its own, or an empty text.
    std::string Get(std::string_view name) const { return std::string(View(name)); }
    /// True when the record has the field.
    bool Has(std::string_view name) const;
    /// Appends a field.
    void Add(std::string_view name, std::string_view value);
    /// Replaces the value of the first field called name, or appends the field.
    void Set(std::string_view name, std::string_view value);
    /// Removes every field.
    void Clear();

    /// The field at a position in record order.
    Field At(size_t index) const
    {
        const Slot slot = SlotAt(index);
        return Field(std::string_view(data_.data() + slot.name, slot.nameLen),
                     std::string_view(data_.data() + slot.value, slot.valueLen));
    }
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, count_); }
    bool operator==(const AuditFields& other) const;
    bool operator!=(const AuditFields& other) const { return !(*this == other); }

private:
    friend class AuditParser;
    struct Slot {
        uint32_t name;
        uint32_t nameLen;
        uint32_t value;
        uint32_t valueLen;
    };
    int IndexOf(std::string_view name) const;
    Slot SlotAt(size_t index) const
    {
        Slot slot;
        std::memcpy(&slot, data_.data() + slotsAt_ + index * sizeof(Slot), sizeof(Slot));
        return slot;
    }
    void StoreSlot(size_t index, const Slot& slot);
    uint32_t Append(std::string_view text);

    // data_ holds the names and values, then count_ slots from slotsAt_ on (copied in and out
    // with memcpy, so the buffer needs no alignment). Replaced values are appended after them.
    std::string data_;
    uint32_t slotsAt_ = 0;
    uint32_t count_ = 0;
};

/// One record (one log line) of an event.
struct AuditRecord {
    std::string type;    ///< record type, such as "SYSCALL" or "PATH"
    AuditFields fields;  ///< the record's fields, without type and the msg=audit(...) stamp
};

/// One audit event: the records that share a time stamp and serial number, in record order.
struct AuditEvent {
    /// The event stamp msg=audit(SECONDS.MILLIS:SERIAL): header[0] is the time in milliseconds
    /// since the epoch, header[1] the serial.
    uint64_t header[2] = {0, 0};
    std::vector<AuditRecord> records;

    /// The fields of the first record of a type, or null.
    const AuditFields* FindRecord(std::string_view type) const;
    AuditFields* FindRecord(std::string_view type);
    /// The fields of every record of a type, in record order.
    std::vector<const AuditFields*> FindRecords(std::string_view type) const;
};

/// Parses audit log lines (RAW or ENRICHED format) into events.
///
/// Consecutive lines with the same stamp form one event. Everything from the first 0x1d byte of
/// a line on (auditd's ENRICHED interpretation) is ignored. A leading node=NAME becomes the
/// record's first field; a user-space msg='...' wrapper is opened and its fields become the
/// record's fields, as libauparse presents them.
class AuditParser {
public:
    /// Adds one log line (without its newline). Returns false, and skips the line, when it is not
    /// an audit record (no type=, or no well-formed msg=audit(...) stamp).
    bool FeedLine(const std::string& line);
    /// Ends the input: the last event is complete.
    void Flush() { open_ = false; }
    /// Every event made so far, the one still collecting lines included.
    const std::vector<AuditEvent>& GetEvents() const { return events_; }
    /// Moves out the completed events, keeping the one still collecting lines.
    std::vector<AuditEvent> TakeEvents();

    /// Parses one line into its stamp and record. Returns false when it is not an audit record.
    static bool ParseLine(std::string_view line, uint64_t header[2], AuditRecord& record);

private:
    class SlotTable;
    /// The last stamp text parsed ("SECONDS.MILLIS:SERIAL", kept without allocating) and its numbers.
    struct StampCache {
        char text[48];
        size_t size = 0;  // 0: nothing cached
        uint64_t header[2] = {0, 0};
        std::string_view View() const { return std::string_view(text, size); }
    };
    static bool ParseLine(std::string_view line, uint64_t header[2], AuditRecord& record, StampCache* cache);

    std::vector<AuditEvent> events_;
    StampCache stampCache_;
    bool open_ = false;  // the last event of events_ may still get records
};

}  // namespace SDK

namespace SDK {

/// The text an audit field value stands for: a quoted value without its quotes; a value made of
/// hexadecimal digit pairs (the audit system's form for a text with blanks, quotes, control or
/// non-ASCII bytes) decoded; anything else as written.
std::string AuditValueText(std::string_view raw);

}  // namespace SDK
