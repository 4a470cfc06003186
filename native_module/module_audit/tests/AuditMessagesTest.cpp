#include "AuditMessages.h"

#include <gtest/gtest.h>

using namespace Engine;

namespace {

// A task that takes syscall control messages and event messages, and nothing else.
class SubscriberTask : public Framework::Task,
                       public AbstructMessage<AuditSyscallCtrlMessage>::Receiver,
                       public AbstructMessage<AuditEventMessage>::Receiver {
public:
    SubscriberTask() : Framework::Task("subscriber", "test", Framework::TaskCondition::kLoop, 16) {}
    int Receive(const AuditSyscallCtrlMessage& msg) override
    {
        lastRule = msg.rule;
        return 2;
    }
    int Receive(const AuditEventMessage& msg) override
    {
        lastTag = msg.tag;
        return 5;
    }
    std::string lastRule;
    std::string lastTag;
};

}  // namespace

TEST(AuditMessages, DispatchReachesTheReceiverOfTheMessageTypeOnly)
{
    SubscriberTask task;
    AuditSyscallCtrlMessage ctrl(&task);
    ctrl.rule = "exit,always -S open";
    EXPECT_EQ(ctrl.MessageHandle(&task), 2);
    EXPECT_EQ(task.lastRule, "exit,always -S open");
    AuditEventMessage event;
    event.tag = "t1";
    EXPECT_EQ(event.MessageHandle(&task), 5);
    EXPECT_EQ(task.lastTag, "t1");

    AuditUnsubscribeMessage unsubscribe(&task);
    EXPECT_EQ(unsubscribe.MessageHandle(&task), -1);  // no such receiver
    EXPECT_EQ(event.MessageHandle(nullptr), -1);

    // A plain task gets -1 for every module message, through its queue as well.
    Framework::Task plain("plain", "test", Framework::TaskCondition::kLoop, 4);
    EXPECT_EQ(event.MessageHandle(&plain), -1);
    plain.PostMsg(new AuditEventMessage);
    plain.BulkConsumeMsg(4);
    EXPECT_EQ(plain.UnhandledCount(), 1U);
}

TEST(AuditMessages, FileSystemControlTakesTheEventMaskAndOnlyFourOptionBytes)
{
    _FileNotifyOpt opt;
    opt.recursive = true;
    opt.flag2 = true;
    opt.flag3 = true;   // not carried
    opt.flag5 = true;
    opt.flag6 = true;   // becomes unwatch
    opt.flag7 = false;  // arrives true
    opt.flag8 = true;
    opt.list1 = {1, 2};
    opt.count = 9;
    opt.list2 = {"a"};
    opt.list3 = {"b"};
    opt.number = 4;
    AuditFileSystemCtrlMessage msg(nullptr, "/etc", {1, 2, 8}, opt);
    EXPECT_EQ(msg.events, 11U);
    EXPECT_EQ(msg.path, "/etc");
    EXPECT_TRUE(msg.unwatch);
    EXPECT_TRUE(msg.opt.recursive);
    EXPECT_TRUE(msg.opt.flag2);
    EXPECT_TRUE(msg.opt.flag5);
    EXPECT_FALSE(msg.opt.flag3);
    EXPECT_FALSE(msg.opt.flag6);
    EXPECT_TRUE(msg.opt.flag7);
    EXPECT_FALSE(msg.opt.flag8);
    EXPECT_TRUE(msg.opt.list1.empty());
    EXPECT_EQ(msg.opt.count, 0);
    EXPECT_TRUE(msg.opt.list2.empty());
    EXPECT_TRUE(msg.opt.list3.empty());
    EXPECT_EQ(msg.opt.number, 0);
    EXPECT_TRUE(msg.tag.empty() && msg.operate.empty() && msg.rule.empty());

    AuditFileSystemCtrlMessage none(nullptr, "/x", {}, _FileNotifyOpt{});
    EXPECT_EQ(none.events, 0U);
    EXPECT_FALSE(none.unwatch);

    AuditEventMessage note(nullptr, "/a", "/b", 192, true, {{"k", "v"}});
    EXPECT_EQ(note.result.destPath, "/b");
    EXPECT_EQ(note.result.event, 192);
    EXPECT_EQ(note.result.extra.at("k"), "v");
    EXPECT_EQ(AuditEventMessage().result.event, -1) << "an audit event delivery carries no notification";
}
