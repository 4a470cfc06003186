#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace SDK {

/// The longest key the kernel takes on an audit rule (its AUDIT_MAX_KEY_LEN).
inline constexpr size_t kMaxAuditKeyLength = 256;

/// What makes an audit rule text (or a value put into one, such as a watched path) unfit to be
/// run as auditctl words or carried in a rule key: a control character, a quote, or "***" (the
/// separator of a rule key's parts). Empty when there is nothing.
std::string AuditRuleTextProblem(const std::string& text);

/// The keys in auditctl's rule listing ("-l"): every "-k KEY" (watches) and "-F key=KEY" (system-call
/// rules) of every line.
std::set<std::string> AuditRuleListingKeys(const std::string& listing);

}  // namespace SDK
