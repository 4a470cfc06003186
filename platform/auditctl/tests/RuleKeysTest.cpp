#include "auditctl/RuleKeys.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// A rule as the kernel lists it: fields with their values, and string fields' text packed in buf.
struct RuleBuilder {
    void Number(__u32 field, __u32 value) { fields.emplace_back(field, value); }
    void String(__u32 field, const std::string& text)
    {
        fields.emplace_back(field, static_cast<__u32>(text.size()));
        buf += text;
    }
    std::unique_ptr<audit_rule_data, decltype(&std::free)> Build() const
    {
        auto* rule = static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + buf.size()));
        rule->field_count = static_cast<__u32>(fields.size());
        for (size_t i = 0; i < fields.size(); ++i) {
            rule->fields[i] = fields[i].first;
            rule->values[i] = fields[i].second;
        }
        rule->buflen = static_cast<__u32>(buf.size());
        std::memcpy(rule->buf, buf.data(), buf.size());
        return {rule, &std::free};
    }
    std::vector<std::pair<__u32, __u32>> fields;
    std::string buf;
};

}  // namespace

TEST(RuleKeys, FindsTheKeyBehindOtherStringFieldsAndSplitsSeveralKeys)
{
    RuleBuilder watch;  // -w /tmp/x -p wa -k k1 -k k2, as the kernel stores it
    watch.String(AUDIT_WATCH, "/tmp/x");
    watch.Number(AUDIT_PERM, 10);
    watch.String(AUDIT_FILTERKEY, "net_task***a\x01other");
    const auto rule = watch.Build();
    EXPECT_EQ(Auditctl::RuleKeys(*rule), (std::vector<std::string>{"net_task***a", "other"}));
    EXPECT_TRUE(Auditctl::RuleKeyContains(*rule, "_task***"));
    EXPECT_TRUE(Auditctl::RuleKeyContains(*rule, "other"));
    EXPECT_FALSE(Auditctl::RuleKeyContains(*rule, "a\x01o"));  // never across two keys
    EXPECT_FALSE(Auditctl::RuleKeyContains(*rule, "/tmp/x"));  // the watch path is not a key
}

TEST(RuleKeys, RulesWithoutKeyOrWithBadLengthsGiveNoKey)
{
    RuleBuilder plain;
    plain.Number(AUDIT_ARCH, AUDIT_ARCH_X86_64);
    plain.String(AUDIT_DIR, "/etc");
    EXPECT_TRUE(Auditctl::RuleKeys(*plain.Build()).empty());

    RuleBuilder broken;
    broken.String(AUDIT_FILTERKEY, "k");
    auto rule = broken.Build();
    rule->values[0] = 1000;  // longer than buf
    EXPECT_TRUE(Auditctl::RuleKeys(*rule).empty());
    rule->field_count = 5000;  // more than the kernel allows
    EXPECT_TRUE(Auditctl::RuleKeys(*rule).empty());
}
