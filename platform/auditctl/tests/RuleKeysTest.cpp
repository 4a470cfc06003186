#include "auditctl/RuleKeys.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// One field of a rule: a number field's value, or a string field's text (its value is then the
// text's length, and the text is packed into the rule's buf).
struct Field {
    __u32 field;
    __u32 value;
    std::string text;
};

// A rule as the kernel lists it.
std::unique_ptr<audit_rule_data, decltype(&std::free)> Rule(const std::vector<Field>& fields)
{
    std::string buf;
    for (const Field& f : fields) {
        buf += f.text;
    }
    auto* rule = static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + buf.size()));
    rule->field_count = static_cast<__u32>(fields.size());
    for (size_t i = 0; i < fields.size(); ++i) {
        rule->fields[i] = fields[i].field;
        rule->values[i] = fields[i].text.empty() ? fields[i].value : static_cast<__u32>(fields[i].text.size());
    }
    rule->buflen = static_cast<__u32>(buf.size());
    std::memcpy(rule->buf, buf.data(), buf.size());
    return {rule, &std::free};
}

}  // namespace

TEST(RuleKeys, RulesWithoutKeyOrWithBadLengthsGiveNoKey)
{
    EXPECT_TRUE(Auditctl::RuleKeys(*Rule({{AUDIT_ARCH, AUDIT_ARCH_X86_64, ""}, {AUDIT_DIR, 0, "/etc"}})).empty());
    auto rule = Rule({{AUDIT_FILTERKEY, 0, "k"}});
    rule->values[0] = 1000;  // longer than buf
    EXPECT_TRUE(Auditctl::RuleKeys(*rule).empty());
    rule->field_count = 5000;  // more than the kernel allows
    EXPECT_TRUE(Auditctl::RuleKeys(*rule).empty());
}

TEST(RuleKeys, EveryKeyIsFoundPastTheRulesOtherStringsAndOnlyKeysAreSearched)
{
    const auto rule = Rule({{AUDIT_ARCH, AUDIT_ARCH_X86_64, ""},
                            {AUDIT_DIR, 0, "/etc/ssh"},
                            {AUDIT_EXE, 0, "/usr/bin/hostwarden"},
                            {AUDIT_PERM, 3, ""},
                            {AUDIT_FILTERKEY, 0, "wapi***1\x01ids"}});
    EXPECT_EQ(Auditctl::RuleKeys(*rule), (std::vector<std::string>{"wapi***1", "ids"}));
    EXPECT_TRUE(Auditctl::RuleKeyContains(*rule, "***1"));
    EXPECT_TRUE(Auditctl::RuleKeyContains(*rule, "ids"));
    EXPECT_FALSE(Auditctl::RuleKeyContains(*rule, "hostwarden")) << "the program's path is not a key";
    EXPECT_FALSE(Auditctl::RuleKeyContains(*rule, "1\x01i")) << "keys are searched one by one";
}
