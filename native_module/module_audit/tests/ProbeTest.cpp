// The audit status and configuration probe, with a fake netlink reply source.

#include "TestSupport.h"

using namespace Engine;

TEST(ProbeConfiguration, ReadsTheLogPathAndRefusesNoLog)
{
    TestSupport::TempDir dir;
    TestSupport::LogCapture capture;
    const auto check = [&](const std::string& text, bool ok, const std::string& path = "") {
        GetAuditConfAndStatus probe(dir.Write("auditd.conf", text));
        EXPECT_EQ(probe.GetAuditLogPath(), ok) << text;
        std::string found = "stale";
        probe.GetAuditLogPath(found);
        EXPECT_EQ(found, path) << text;
    };
    check("log_file = /var/log/audit/audit.log\nlog_format = ENRICHED\n", true, "/var/log/audit/audit.log");
    check("log_file = /var/log/audit/audit.log\nlog_format = NOLOG\n", false);
    EXPECT_TRUE(capture.channel().Has("Audit log format is invalid."));
    check("log_format = nolog\nlog_file = /x\n", true, "/x");  // only the upper-case word disables
    check("# log_file = /commented\n\n   \nlog_file = a = b\nlog_file=/tight\nlog_format=RAW\n", true, "/tight");
    check("log_file = /first\nlog_format = RAW\nlog_file = /later\n", true, "/first");
    check("log_file = /only\n", false);  // no log_format at all is refused too
    capture.channel().Clear();
    check("space_left = 75\n", false);
    EXPECT_TRUE(capture.channel().Has("Not find log path in /etc/audit/auditd.conf."));
    EXPECT_TRUE(capture.channel().Has("Audit log format is invalid."));
    EXPECT_FALSE(GetAuditConfAndStatus(dir.path() + "/nothing.conf").GetAuditLogPath());
    EXPECT_TRUE(capture.channel().Has("Open /etc/audit/auditd.conf falied."));
}

TEST(ProbeStatus, TakesTheStatusReplyAndGivesUpAfterFortyOthers)
{
    TestSupport::TempDir dir;
    TestSupport::LogCapture capture;
    TestSupport::StatusReplies replies;
    replies.otherType = 1001;
    replies.status.pid = 42;
    GetAuditConfAndStatus probe(dir.Write("auditd.conf", ""), &replies);
    struct Case {
        int open, request;
        std::deque<int> script;  // reply types, then only 1001s
        bool taken;
        const char* logged;
        int gets, closes;  // replies taken; sockets closed so far
    };
    const Case cases[] = {
        {3, 1, {-1, 1001, 1000}, true, "Get the audit system's reply type(1001), try again.", 3, 1},
        {3, 1, {}, false, "", 40, 2},
        {3, 1, {2}, false, "Get the audit system's reply type(2), get status falied.", 1, 3},
        {3, 0, {}, false, "Request status of the audit failed, ret(0).", 0, 4},
        {-1, 1, {}, false, "Open audit socket failed.", 0, 4},  // nothing to close
    };
    for (const Case& c : cases) {
        std::tie(replies.openResult, replies.requestResult, replies.script, replies.gets) = std::make_tuple(c.open, c.request, c.script, 0);
        audit_status status{};
        EXPECT_EQ(probe.GetAuditStatus(status), c.taken) << c.logged;
        EXPECT_EQ(status.pid, c.taken ? 42U : 0U) << c.logged;
        EXPECT_EQ(replies.gets, c.gets) << c.logged;
        EXPECT_EQ(replies.closes, c.closes) << c.logged;
        EXPECT_TRUE(*c.logged == '\0' || capture.channel().Has(c.logged)) << c.logged;
    }
    const std::vector<std::string> texts = capture.channel().Texts();
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
        return text.rfind("Get the audit system's reply failed, errno(", 0) == 0 && text.find("), try again.") != std::string::npos;
    }));
}

TEST(ProbeEnabled, NeedsEnabledExactlyOneARealAuditdAndAUsableConfiguration)
{
    TestSupport::TempDir dir;
    TestSupport::LogCapture capture;
    TestSupport::NamedProcess auditd(dir, "auditd");
    TestSupport::NamedProcess impostor(dir, "sleepy");
    TestSupport::StatusReplies replies;
    GetAuditConfAndStatus probe(dir.Write("auditd.conf", "log_file = /var/log/audit/audit.log\nlog_format = RAW\n"), &replies);
    const auto enabled = [&](unsigned state, pid_t pid) {
        replies.status.enabled = state;
        replies.status.pid = static_cast<__u32>(pid);
        replies.script = {1000};
        return probe.IsAuditEnabled();
    };
    EXPECT_TRUE(enabled(1, auditd.pid));
    EXPECT_TRUE(capture.channel().Has("Auditd pid is (" + std::to_string(auditd.pid) + ")."));
    EXPECT_FALSE(enabled(2, auditd.pid));  // rules locked counts as disabled
    EXPECT_TRUE(capture.channel().Has("Audit status is disabled."));
    EXPECT_FALSE(enabled(0, auditd.pid));
    EXPECT_FALSE(enabled(1, 0));
    EXPECT_TRUE(capture.channel().Has("Auditd pid(0) is invalid."));
    EXPECT_FALSE(enabled(1, impostor.pid));
    EXPECT_TRUE(capture.channel().Has("Auditd exe path(" + dir.path() + "/sleepy) is invalid."));
    EXPECT_FALSE(enabled(1, 0x7ffffff0));
    EXPECT_TRUE(capture.channel().Has("Get auditd exe path failed, errno(2)."));
    replies.status.enabled = 1;
    replies.script = {2};
    EXPECT_FALSE(probe.IsAuditEnabled());
    EXPECT_TRUE(capture.channel().Has("Get audit status failed."));
}
