#include "TestMessages.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/Task.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <unistd.h>

namespace {

// Collects the echo task's answers.
class ClientTask : public Framework::Task, public PingReceiver {
public:
    ClientTask() : Framework::Task("client_task", "test_feature", Framework::TaskCondition::kLoop, 64) {}
    int OnPing(const PingMessage& msg) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        answers.push_back(msg.seq);
        changed.notify_all();
        return 0;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> answers;
};

class ClientModule : public Framework::Module {
public:
    explicit ClientModule(ClientTask* task) : Framework::Module("client_module"), task_(task) {}
    int Init() override { return RegisterTask(task_, true); }

private:
    ClientTask* task_;
};

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(Engine, LoadsARealModuleLibraryRunsItsTaskAndTearsDownInOrder)
{
    const std::string log = "/tmp/hw_engine_test_" + std::to_string(getpid());
    setenv("HW_TEST_MODULE_LOG", log.c_str(), 1);
    {
        Framework::Engine engine;
        EXPECT_EQ(Framework::Engine::Current(), &engine);
        ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
        auto* client = new ClientTask;
        ASSERT_EQ(engine.AddModule(std::make_unique<ClientModule>(client)), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        EXPECT_EQ(engine.ModuleNames(), (std::vector<std::string>{"echo_module", "client_module"}));

        Framework::Task* echo = engine.FindTask("echo_task");
        ASSERT_NE(echo, nullptr);
        EXPECT_EQ(engine.FindTask("client_task"), client);
        EXPECT_EQ(engine.FindTask("nobody"), nullptr);
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(client->SendDirectMsg("echo_task", new PingMessage("client_task", i)));
        }
        {
            std::unique_lock<std::mutex> lock(client->mutex);
            ASSERT_TRUE(client->changed.wait_for(lock, std::chrono::seconds(20), [&] { return client->answers.size() == 3; }));
            EXPECT_EQ(client->answers, (std::vector<int>{1000, 1001, 1002}));
        }
        engine.StopAll();
        EXPECT_EQ(engine.FindTask("echo_task"), nullptr);
        EXPECT_TRUE(engine.ModuleNames().empty());
    }
    EXPECT_EQ(Framework::Engine::Current(), nullptr);
    EXPECT_EQ(ReadAll(log), "init task\nuninit task\nuninit module\ndestroy task\ndestroy module\n");
    std::remove(log.c_str());
    unsetenv("HW_TEST_MODULE_LOG");
}

namespace {

bool Mapped(const std::string& library)
{
    return ReadAll("/proc/self/maps").find(library) != std::string::npos;
}

}  // namespace

TEST(Engine, RefusedLibrariesAreUnloaded)
{
    Framework::Engine engine;
    EXPECT_EQ(engine.LoadModule("/no/such/libmodule.so"), -1);
    EXPECT_EQ(engine.LoadModule(HW_NOT_A_MODULE), -1);
    EXPECT_FALSE(Mapped(HW_NOT_A_MODULE)) << "a library without CreateModule";
    for (const char* refusal : {"HW_TEST_MODULE_FAIL_INIT", "HW_TEST_MODULE_NO_MODULE"}) {
        setenv(refusal, "1", 1);
        EXPECT_EQ(engine.LoadModule(HW_TEST_MODULE), -1) << refusal;
        unsetenv(refusal);
        EXPECT_FALSE(Mapped(HW_TEST_MODULE)) << refusal;
    }
    EXPECT_EQ(engine.LoadModulesFrom("/no/such/dir"), 0);
    EXPECT_TRUE(engine.ModuleNames().empty());
}

// The library's task leaves a message of its own making in the queue of a task loaded before it;
// that queue is destroyed with its module, which must happen while the library is still loaded.
TEST(Engine, NoLibraryIsUnloadedWhileAQueueHoldsItsMessages)
{
    const std::string log = "/tmp/hw_engine_unload_" + std::to_string(getpid());
    setenv("HW_TEST_MODULE_LOG", log.c_str(), 1);
    {
        Framework::Engine engine;
        auto* client = new ClientTask;
        ASSERT_EQ(engine.AddModule(std::make_unique<ClientModule>(client)), 0);
        setenv("HW_TEST_MODULE_UNINIT_PING", "client_task", 1);
        ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        engine.StopAll();
        unsetenv("HW_TEST_MODULE_UNINIT_PING");
    }
    unsetenv("HW_TEST_MODULE_LOG");
    EXPECT_FALSE(Mapped(HW_TEST_MODULE));
    EXPECT_NE(ReadAll(log).find("destroy module"), std::string::npos) << "the module was destroyed, not leaked";
    std::remove(log.c_str());
}

namespace {

// Throws from its handler when pinged with a negative number.
class ThrowingTask : public Framework::Task, public PingReceiver {
public:
    ThrowingTask() : Framework::Task("throwing_task", "test_feature", Framework::TaskCondition::kLoop, 64) {}
    int OnPing(const PingMessage& msg) override
    {
        if (msg.seq < 0) {
            throw std::runtime_error("bad ping");
        }
        return 0;
    }
};

class TwoTasks : public Framework::Module {
public:
    TwoTasks(Framework::Task* a, Framework::Task* b) : Framework::Module("two_tasks"), a_(a), b_(b) {}
    int Init() override { return RegisterTask(a_, true) == 0 && RegisterTask(b_, true) == 0 ? 0 : -1; }

private:
    Framework::Task* a_;
    Framework::Task* b_;
};

}  // namespace

// Keeps the engine's log lines and wakes a waiter on each.
class EngineLog : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        text += msg.getText() + "\n";
        changed.notify_all();
    }
    bool WaitFor(const std::string& wanted)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), [&] { return text.find(wanted) != std::string::npos; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::string text;
};

TEST(Engine, AnExceptionStopsItsTaskButNotTheAgent)
{
    Framework::Engine engine;  // first: Poco's application gives every logger a console channel
    Poco::AutoPtr<EngineLog> log(new EngineLog);
    Poco::Logger& framework = Poco::Logger::get("framework");
    const Poco::Channel::Ptr previous = framework.getChannel();
    framework.setChannel(log);
    ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
    auto* throwing = new ThrowingTask;
    auto* client = new ClientTask;
    ASSERT_EQ(engine.AddModule(std::make_unique<TwoTasks>(throwing, client)), 0);
    ASSERT_EQ(engine.StartTasks(), 0);
    ASSERT_TRUE(client->SendDirectMsg("throwing_task", new PingMessage("client_task", -1)));
    EXPECT_TRUE(log->WaitFor("Task throwing_task stopped by an exception: bad ping")) << log->text;
    EXPECT_EQ(throwing->GetState(), Framework::kTaskStop);
    EXPECT_EQ(engine.FindTask("throwing_task"), nullptr) << "its name route is withdrawn";
    // The rest of the agent goes on.
    ASSERT_TRUE(client->SendDirectMsg("echo_task", new PingMessage("client_task", 7)));
    std::unique_lock<std::mutex> lock(client->mutex);
    EXPECT_TRUE(client->changed.wait_for(lock, std::chrono::seconds(20), [&] { return !client->answers.empty(); }));
    lock.unlock();
    engine.StopAll();
    framework.setChannel(previous);
}
