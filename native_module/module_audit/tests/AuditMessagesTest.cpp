// The module's messages: dispatch by type, and what a file-system control message carries.

#include "TestSupport.h"

using namespace Engine;

TEST(AuditMessages, DispatchReachesTheReceiverOfTheMessageTypeOnly)
{
    TestSupport::Subscriber sub;  // takes event messages only
    EXPECT_EQ(AuditUnsubscribeMessage(&sub).MessageHandle(&sub), -1) << "no such receiver";
    EXPECT_EQ(AuditEventMessage().MessageHandle(nullptr), -1);
    EXPECT_EQ(AuditEventMessage().MessageHandle(&sub), 0);
}

TEST(AuditMessages, FileSystemControlTakesTheEventMaskAndOnlyFourOptionBytes)
{
    _FileNotifyOpt opt;
    opt.recursive = opt.flag2 = opt.flag3 = opt.flag5 = opt.flag6 = opt.flag8 = true;
    opt.flag7 = false;
    opt.list1 = {1, 2};
    opt.count = 9;
    opt.list2 = {"a"};
    opt.list3 = {"b"};
    opt.number = 4;
    const AuditFileSystemCtrlMessage msg(nullptr, "/etc", {1, 2, 8}, opt);
    EXPECT_EQ(msg.path + " " + std::to_string(msg.events), "/etc 11");
    // recursive, flag2 and flag5 carried; flag6 becomes unwatch; flag7 arrives set; the rest default.
    EXPECT_TRUE(msg.unwatch && msg.opt.recursive && msg.opt.flag2 && msg.opt.flag5 && msg.opt.flag7);
    EXPECT_FALSE(msg.opt.flag3 || msg.opt.flag6 || msg.opt.flag8);
    EXPECT_TRUE(msg.opt.list1.empty() && msg.opt.list2.empty() && msg.opt.list3.empty());
    EXPECT_EQ(msg.opt.count + msg.opt.number, 0);
    EXPECT_TRUE(msg.tag.empty() && msg.operate.empty() && msg.rule.empty());
    EXPECT_EQ(AuditEventMessage().result.event, -1) << "an audit event delivery carries no notification";
}
