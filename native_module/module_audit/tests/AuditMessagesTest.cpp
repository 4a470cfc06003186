// The module's messages: dispatch by type, and what a file-system control message carries.
#include "AuditMessages.h"

#include <gtest/gtest.h>

using namespace Engine;

namespace {

// Takes syscall control messages and event messages, and nothing else.
class SubscriberTask : public Framework::Task,
                       public AbstructMessage<AuditSyscallCtrlMessage>::Receiver,
                       public AbstructMessage<AuditEventMessage>::Receiver {
public:
    SubscriberTask() : Framework::Task("subscriber", "test", Framework::TaskCondition::kLoop, 16) {}
    int Receive(const AuditSyscallCtrlMessage& msg) override { return msg.rule == "r" ? 2 : 3; }
    int Receive(const AuditEventMessage& msg) override { return msg.tag == "t" ? 5 : 6; }
};

}  // namespace

TEST(AuditMessages, DispatchReachesTheReceiverOfTheMessageTypeOnly)
{
    SubscriberTask task;
    AuditSyscallCtrlMessage ctrl(&task);
    ctrl.rule = "r";
    AuditEventMessage event;
    event.tag = "t";
    EXPECT_EQ(ctrl.MessageHandle(&task), 2);
    EXPECT_EQ(event.MessageHandle(&task), 5);
    EXPECT_EQ(AuditUnsubscribeMessage(&task).MessageHandle(&task), -1) << "no such receiver";
    EXPECT_EQ(event.MessageHandle(nullptr), -1);
    // A plain task gets -1 for every module message, through its queue as well.
    Framework::Task plain("plain", "test", Framework::TaskCondition::kLoop, 4);
    plain.PostMsg(new AuditEventMessage);
    plain.BulkConsumeMsg(4);
    EXPECT_EQ(plain.UnhandledCount(), 1U);
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
    const AuditFileSystemCtrlMessage none(nullptr, "/x", {}, _FileNotifyOpt{});
    EXPECT_EQ(none.events, 0U);
    EXPECT_FALSE(none.unwatch);

    const AuditEventMessage note(nullptr, "/a", "/b", 192, true, {{"k", "v"}});
    EXPECT_EQ(note.result.destPath + " " + std::to_string(note.result.event) + " " + note.result.extra.at("k"), "/b 192 v");
    EXPECT_EQ(AuditEventMessage().result.event, -1) << "an audit event delivery carries no notification";
}
