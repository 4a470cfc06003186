#include "auditctl/RuleKeys.h"

namespace Auditctl {

namespace {

constexpr char kKeySeparator = '\x01';  // libaudit's AUDIT_KEY_SEPARATOR

// Field types whose value is a string stored in buf (values[i] holds its length), in the kernel's
// own list (kernel/auditfilter.c).
bool IsStringField(__u32 field)
{
    switch (field) {
    case AUDIT_SUBJ_USER:
    case AUDIT_SUBJ_ROLE:
    case AUDIT_SUBJ_TYPE:
    case AUDIT_SUBJ_SEN:
    case AUDIT_SUBJ_CLR:
    case AUDIT_OBJ_USER:
    case AUDIT_OBJ_ROLE:
    case AUDIT_OBJ_TYPE:
    case AUDIT_OBJ_LEV_LOW:
    case AUDIT_OBJ_LEV_HIGH:
    case AUDIT_WATCH:
    case AUDIT_DIR:
    case AUDIT_FILTERKEY:
    case AUDIT_EXE:
        return true;
    default:
        return false;
    }
}

}  // namespace

std::vector<std::string> RuleKeys(const audit_rule_data& rule)
{
    std::vector<std::string> keys;
    size_t offset = 0;
    const __u32 count = rule.field_count < AUDIT_MAX_FIELDS ? rule.field_count : AUDIT_MAX_FIELDS;
    for (__u32 i = 0; i < count; ++i) {
        if (!IsStringField(rule.fields[i])) {
            continue;
        }
        const size_t length = rule.values[i];
        if (length > rule.buflen || offset > rule.buflen - length) {
            break;
        }
        if (rule.fields[i] == AUDIT_FILTERKEY) {
            const std::string all(rule.buf + offset, length);
            size_t start = 0;
            for (;;) {
                const size_t end = all.find(kKeySeparator, start);
                keys.push_back(all.substr(start, end == std::string::npos ? std::string::npos : end - start));
                if (end == std::string::npos) {
                    break;
                }
                start = end + 1;
            }
        }
        offset += length;
    }
    return keys;
}

bool RuleKeyContains(const audit_rule_data& rule, const std::string& text)
{
    for (const std::string& key : RuleKeys(rule)) {
        if (key.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace Auditctl
