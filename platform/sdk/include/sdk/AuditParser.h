#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SDK {

/// The fields of one audit record in the order they were written. Values are kept exactly as
/// written: quotes kept, hexadecimal kept. A name may occur twice; lookups see the first.
class AuditFields {
public:
    using Field = std::pair<std::string, std::string>;
    using const_iterator = std::vector<Field>::const_iterator;

    /// The value of name, or null when the record has no such field.
    const std::string* Find(std::string_view name) const;
    /// The value of name, or an empty text.
    std::string Get(std::string_view name) const;
    /// True when the record has the field.
    bool Has(std::string_view name) const { return Find(name) != nullptr; }
    /// Appends a field.
    void Add(std::string name, std::string value) { fields_.emplace_back(std::move(name), std::move(value)); }
    /// Replaces the value of the first field called name, or appends the field.
    void Set(std::string_view name, std::string value);
    /// Removes every field.
    void Clear() { fields_.clear(); }
    void Reserve(size_t count) { fields_.reserve(count); }

    size_t size() const { return fields_.size(); }
    bool empty() const { return fields_.empty(); }
    const_iterator begin() const { return fields_.begin(); }
    const_iterator end() const { return fields_.end(); }
    bool operator==(const AuditFields& other) const { return fields_ == other.fields_; }

private:
    std::vector<Field> fields_;
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
    std::vector<AuditEvent> events_;
    bool open_ = false;  // the last event of events_ may still get records
};

}  // namespace SDK
