// Tasks: dispatch, delivery by name, bounded queues, the waiter, receipts, and a stop under load.
#include "TestMessages.h"
#include "TestCommon.h"

#include "framework/Task.h"
#include "framework/TaskRegistry.h"

namespace {

// Records the pings it receives, as (sender, number), in order; answers 7.
class RecordingTask : public Framework::Task, public PingReceiver {
public:
    explicit RecordingTask(const std::string& name, size_t capacity = 1024)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::kLoop, capacity) {}
    int OnPing(const PingMessage& msg) override
    {
        received.Push({msg.sender, msg.seq});
        return 7;
    }
    TestSupport::Inbox<std::pair<std::string, int>> received;
};

// A task without the ping receiver.
class PlainTask : public Framework::Task {
public:
    PlainTask() : Framework::Task("plain", "test_feature", Framework::TaskCondition::kLoop, 8) {}
    int HandleMsg(const Framework::Message* msg) override
    {
        fallback += msg != nullptr ? 1 : 0;
        return 0;
    }
    int fallback = 0;
};

}  // namespace

TEST(Task, DispatchDeliveryByNameAndBoundedQueues)
{
    RecordingTask receiver("receiver", 3);
    PlainTask plain;
    EXPECT_EQ(PingMessage("me", 1).MessageHandle(&receiver), 7);
    EXPECT_EQ(PingMessage("me", 1).MessageHandle(&plain), -1);
    // A message no receiver takes is counted and offered to HandleMsg.
    ASSERT_TRUE(plain.PostMsg(new PingMessage("me", 2)));
    EXPECT_EQ(plain.BulkConsumeMsg(128), 1);
    EXPECT_EQ(plain.UnhandledCount() + plain.fallback, 2U);

    Framework::TaskRegistry registry;
    RecordingTask sender("sender");
    sender.AttachRegistry(&registry);
    ASSERT_TRUE(registry.Add(&receiver));
    EXPECT_FALSE(registry.Add(&receiver)) << "one task per name";
    std::atomic<int> alive{0};
    for (int i = 0; i < 5; ++i) {
        sender.SendDirectMsg("receiver", new PingMessage("sender", i, &alive));  // a queue of three
    }
    EXPECT_FALSE(sender.SendDirectMsg("nobody", new PingMessage("sender", 9, &alive)));
    EXPECT_FALSE(sender.SendAgileMsg(nullptr, new PingMessage("sender", 9, &alive)));
    EXPECT_EQ(sender.UndeliverableCount(), 2U);
    EXPECT_EQ(receiver.DroppedCount(), 2U);
    EXPECT_EQ(alive.load(), 3) << "what could not be delivered or queued was destroyed at once";
    EXPECT_TRUE(registry.Remove("receiver"));
    EXPECT_FALSE(registry.Remove("receiver")) << "removed once";
    EXPECT_FALSE(sender.SendDirectMsg("receiver", new PingMessage("sender", 9, &alive)));
    EXPECT_EQ(receiver.BulkConsumeMsg(2), 2) << "at most max per call";
    EXPECT_EQ(receiver.BulkConsumeMsg(10), 1);
    EXPECT_EQ(receiver.received.Snapshot(), (std::vector<std::pair<std::string, int>>{{"me", 1}, {"sender", 0}, {"sender", 1}, {"sender", 2}}));
    EXPECT_EQ(alive.load(), 0);
}

// Senders flood a task while it is stopped: it joins, every message is handled, dropped as
// overflow or destroyed with the queue, and each sender's arrive in order.
TEST(Task, StopsAndJoinsUnderLoadKeepingPerSenderOrderAndLosingNoMemory)
{
    std::atomic<int> alive{0};
    std::atomic<uint64_t> sent{0};
    {
        RecordingTask task("busy", 64);
        task.Init();
        std::thread runner([&task] { task.Run(); });
        std::vector<std::thread> senders;
        for (int s = 0; s < 4; ++s) {
            senders.emplace_back([&, s] {
                for (int i = 0; i < 5000; ++i) {
                    task.PostMsg(new PingMessage("s" + std::to_string(s), i, &alive));
                    ++sent;
                }
            });
        }
        // At least what fits in the queue arrives.
        ASSERT_TRUE(TestSupport::WaitUntil([&task] { return task.received.Snapshot().size() >= 64; }));
        task.Stop();
        runner.join();
        for (std::thread& t : senders) {
            t.join();
        }
        const auto received = task.received.Snapshot();
        EXPECT_EQ(received.size() + task.DroppedCount() + task.PendingCount(), sent.load());
        std::map<std::string, int> last;
        for (const auto& [sender, seq] : received) {
            ASSERT_LT(last.try_emplace(sender, -1).first->second, seq) << sender;
            last[sender] = seq;
        }
    }
    EXPECT_EQ(alive.load(), 0) << "queued messages are destroyed with their task";
}

TEST(EventWaiter, ReturnsAtOnceForWaitingMessagesAReadableWakeSourceAndAStop)
{
    RecordingTask task("waiter");
    const size_t openBefore = TestSupport::OpenFileCount();
    {
        RecordingTask gone("gone");
    }
    EXPECT_EQ(TestSupport::OpenFileCount(), openBefore) << "a task's waiter closes its wake-up descriptor";
    Framework::EventWaiter& waiter = task.GetEventWaiter();
    EXPECT_EQ(waiter.WaitAndHandleEvent(1, 128), 0);  // nothing: time-out
    const auto asleep = std::chrono::steady_clock::now();
    std::thread poster([&task] { task.PostMsg(new PingMessage("x", 1)); });
    EXPECT_EQ(waiter.WaitAndHandleEvent(30000, 128), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - asleep, std::chrono::seconds(10)) << "woken by the message, not by the time-out";
    poster.join();
    task.BulkConsumeMsg(128);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::string heard;
    ASSERT_TRUE(waiter.AddWakeSource(fds[0], [&] {
        char c = 0;
        heard += read(fds[0], &c, 1) == 1 ? c : '?';
    }));
    EXPECT_FALSE(waiter.AddWakeSource(fds[0], [] {})) << "once";
    std::thread writer([&] { EXPECT_EQ(write(fds[1], "w", 1), 1); });
    EXPECT_EQ(waiter.WaitAndHandleEvent(60000, 128), 0);
    writer.join();
    EXPECT_EQ(heard, "w") << "the handler ran on the waiting thread before the wait returned";
    waiter.RemoveWakeSource(fds[0]);
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1, 128), 0);
    EXPECT_EQ(heard, "w") << "removed: no longer heard";
    close(fds[0]);
    close(fds[1]);

    std::thread stopper([&task] { task.Stop(); });
    EXPECT_EQ(waiter.WaitAndHandleEvent(60000, 128), 0);
    stopper.join();
    EXPECT_EQ(task.GetState(), Framework::kTaskStop);
}

TEST(Task, AReceiptTellsTheReceiversAnswerOrThatTheMessageWasDropped)
{
    Framework::TaskRegistry registry;
    RecordingTask receiver("receiver", 1);
    registry.Add(&receiver);
    RecordingTask sender("sender");
    sender.AttachRegistry(&registry);
    const auto send = [&](const std::string& to) {
        auto receipt = std::make_shared<Framework::MessageReceipt>();
        auto* msg = new PingMessage("sender", 1);
        msg->AttachReceipt(receipt);
        sender.SendDirectMsg(to, msg);
        return receipt;
    };
    using Outcome = Framework::MessageReceipt::Outcome;
    int result = 0;
    const auto handled = send("receiver");
    EXPECT_EQ(send("receiver")->Wait(0, result), Outcome::kDropped) << "a queue of one";
    EXPECT_EQ(handled->Wait(0, result), Outcome::kPending) << "still queued";
    receiver.BulkConsumeMsg(8);
    EXPECT_EQ(handled->Wait(0, result), Outcome::kHandled);
    EXPECT_EQ(result, 7);
    // A sender waiting on its receipt is woken by the answer, not by its time-out.
    const auto answered = send("receiver");
    const auto asked = std::chrono::steady_clock::now();
    std::thread answer([&receiver] { receiver.BulkConsumeMsg(8); });
    EXPECT_EQ(answered->Wait(30000, result), Outcome::kHandled);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(10));
    answer.join();
    EXPECT_EQ(send("nobody")->Wait(0, result), Outcome::kDropped);
    std::shared_ptr<Framework::MessageReceipt> unhandled;
    {
        RecordingTask doomed("doomed");
        registry.Add(&doomed);
        unhandled = send("doomed");
        registry.Remove("doomed");
        EXPECT_EQ(unhandled->Wait(0, result), Outcome::kPending);
    }
    EXPECT_EQ(unhandled->Wait(0, result), Outcome::kDropped) << "taken down with its queue";
}
