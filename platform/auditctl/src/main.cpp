// The installation's auditctl. "-D -k TEXT" removes every kernel audit rule one of whose keys
// contains TEXT (the system auditctl matches only whole keys, which leaves the rules of earlier
// runs behind); every other argument list runs the system auditctl unchanged.
#include "auditctl/RuleKeys.h"

#include <libaudit.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char* kSystemAuditctl[] = {"/usr/sbin/auditctl", "/sbin/auditctl"};

using RuleCopy = std::unique_ptr<audit_rule_data, decltype(&std::free)>;

// Lists the kernel's rules. Returns false (with a message) when the kernel does not answer.
bool ListRules(int fd, std::vector<RuleCopy>& rules)
{
    if (audit_request_rules_list_data(fd) <= 0) {
        std::fprintf(stderr, "auditctl: cannot ask the kernel for its rules: %s\n", std::strerror(errno));
        return false;
    }
    for (;;) {
        audit_reply reply{};
        const int got = audit_get_reply(fd, &reply, GET_REPLY_BLOCKING, 0);
        if (got <= 0) {
            std::fprintf(stderr, "auditctl: no answer from the kernel while listing rules\n");
            return false;
        }
        if (reply.type == NLMSG_DONE) {
            return true;
        }
        if (reply.type == NLMSG_ERROR) {
            if (reply.error != nullptr && reply.error->error != 0) {
                std::fprintf(stderr, "auditctl: the kernel refused to list rules: %s\n", std::strerror(-reply.error->error));
                return false;
            }
            continue;  // an acknowledgement
        }
        if (reply.type != AUDIT_LIST_RULES || reply.ruledata == nullptr) {
            continue;
        }
        const size_t size = sizeof(audit_rule_data) + reply.ruledata->buflen;
        RuleCopy copy(static_cast<audit_rule_data*>(std::malloc(size)), &std::free);
        if (!copy) {
            std::fprintf(stderr, "auditctl: out of memory\n");
            return false;
        }
        std::memcpy(copy.get(), reply.ruledata, size);
        rules.push_back(std::move(copy));
    }
}

int DeleteRulesWithKeyContaining(const std::string& text)
{
    if (text.empty()) {
        std::fprintf(stderr, "auditctl: -D -k needs a non-empty key text\n");
        return 2;
    }
    const int fd = audit_open();
    if (fd < 0) {
        std::fprintf(stderr, "auditctl: cannot open the audit netlink socket: %s\n", std::strerror(errno));
        return 1;
    }
    std::vector<RuleCopy> rules;
    int status = ListRules(fd, rules) ? 0 : 1;
    for (RuleCopy& rule : rules) {
        if (status != 0 || !Auditctl::RuleKeyContains(*rule, text)) {
            continue;
        }
        if (audit_delete_rule_data(fd, rule.get(), static_cast<int>(rule->flags), static_cast<int>(rule->action)) <= 0) {
            std::fprintf(stderr, "auditctl: the kernel refused to delete a rule: %s\n", std::strerror(errno));
            status = 1;
        }
    }
    audit_close(fd);
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "-D") == 0 && std::strcmp(argv[2], "-k") == 0) {
        return DeleteRulesWithKeyContaining(argv[3]);
    }
    for (const char* path : kSystemAuditctl) {
        if (access(path, X_OK) == 0) {
            argv[0] = const_cast<char*>(path);
            execv(path, argv);
            std::fprintf(stderr, "auditctl: cannot run %s: %s\n", path, std::strerror(errno));
            return 126;
        }
    }
    std::fprintf(stderr, "auditctl: the system auditctl is missing (looked in /usr/sbin and /sbin); install auditd\n");
    return 127;
}
