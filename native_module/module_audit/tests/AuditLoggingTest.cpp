#include "AuditLogging.h"

#include "TestSupport.h"


TEST(AuditLogging, WritesFormattedLinesWithSourceNameLineAndPriority)
{
    TestSupport::LogCapture log(Poco::Message::PRIO_INFORMATION);
    const int line = __LINE__ + 1;
    AUDIT_LOG_ERROR("Distract task(%s) rule(%s) failed.", "net_task", std::string("exit,always"));
    const std::vector<Poco::Message> messages = log.channel().Messages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].getText(), "Distract task(net_task) rule(exit,always) failed.");
    EXPECT_EQ(messages[0].getPriority(), Poco::Message::PRIO_ERROR);
    EXPECT_STREQ(messages[0].getSourceFile(), "AuditLoggingTest");
    EXPECT_EQ(messages[0].getSourceLine(), line);
    EXPECT_EQ(messages[0].getSource(), "audit_module");
}

TEST(AuditLogging, BuildsNothingBelowTheLevelAndSwallowsFormattingErrors)
{
    TestSupport::LogCapture log(Poco::Message::PRIO_WARNING);
    int built = 0;
    AUDIT_LOG_DEBUG("value %d", ++built);
    EXPECT_EQ(built, 0) << "arguments are not evaluated when the level does not admit the line";
    AUDIT_LOG_WARN("value %d", ++built);
    EXPECT_EQ(built, 1);
    // A value of the wrong type is marked by Poco::format; nothing escapes to the caller.
    EXPECT_NO_THROW(AUDIT_LOG_ERROR("number %d", std::string("not a number")));
    EXPECT_EQ(log.channel().Texts(), (std::vector<std::string>{"value 1", "number [ERRFMT]"}));
}
