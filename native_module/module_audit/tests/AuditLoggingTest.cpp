#include "AuditLogging.h"

#include "TestSupport.h"

TEST(AuditLogging, WritesAdmittedLinesWithTheirSourceBuildsNoOthersAndSwallowsFormattingErrors)
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
    const Poco::Message first = log.channel().Messages().at(0);
    EXPECT_EQ(first.getSource() + " " + first.getSourceFile() + " " + std::to_string(first.getPriority()), "audit_module AuditLoggingTest 4");
}
