#pragma once

#include <linux/audit.h>

#include <string>
#include <vector>

namespace Auditctl {

/// The keys of a kernel audit rule as the kernel lists it: the AUDIT_FILTERKEY string, split at
/// libaudit's key separator (0x01). A rule without key gives none. Malformed lengths (a string
/// field reaching past buflen) end the walk instead of reading past the buffer.
std::vector<std::string> RuleKeys(const audit_rule_data& rule);

/// True when one of the rule's keys contains text.
bool RuleKeyContains(const audit_rule_data& rule, const std::string& text);

}  // namespace Auditctl
