#include "TestMessages.h"
#include "TasksModule.h"
#include "TestCommon.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/Task.h"

#include <atomic>

namespace {

// Collects the echo task's answers; a ping of -7 makes it throw.
class ClientTask : public Framework::Task, public PingReceiver {
public:
    explicit ClientTask(const std::string& name = "client_task") : Framework::Task(name, "test_feature", Framework::TaskCondition::kLoop, 64) {}
    int OnPing(const PingMessage& msg) override
    {
        if (msg.seq == -7) {
            throw std::runtime_error("bad ping");
        }
        answers.Push(msg.seq);
        return 0;
    }
    TestSupport::Inbox<int> answers;
};

std::unique_ptr<Framework::Module> Tasks(std::vector<Framework::Task*> tasks, const std::string& name = "client_module")
{
    return std::make_unique<TestSupport::TasksModule>(std::move(tasks), true, name);
}

using TestSupport::ReadFile;

bool Mapped(const std::string& library)
{
    return ReadFile("/proc/self/maps").find(library) != std::string::npos;
}

}  // namespace

TEST(Engine, LoadsARealModuleLibraryRunsItsTaskAndTearsDownInOrder)
{
    TestSupport::TempDir dir;
    const std::string log = dir.path() + "/module.log";
    setenv("HW_TEST_MODULE_LOG", log.c_str(), 1);
    {
        Framework::Engine engine;
        EXPECT_EQ(Framework::Engine::Current(), &engine);
        ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
        auto* client = new ClientTask;
        ASSERT_EQ(engine.AddModule(Tasks({client})), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        EXPECT_EQ(engine.ModuleNames(), (std::vector<std::string>{"echo_module", "client_module"}));

        EXPECT_EQ(engine.FindTask("client_task"), client);
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(client->SendDirectMsg("echo_task", new PingMessage("client_task", i)));
        }
        ASSERT_TRUE(client->answers.WaitFor([](int seq) { return seq == 1002; }));
        EXPECT_EQ(client->answers.Snapshot(), (std::vector<int>{1000, 1001, 1002}));
        engine.StopAll();
        EXPECT_EQ(engine.FindTask("echo_task"), nullptr);
        EXPECT_TRUE(engine.ModuleNames().empty());
    }
    EXPECT_EQ(Framework::Engine::Current(), nullptr);
    EXPECT_EQ(ReadFile(log), "init task\nuninit task\nuninit module\ndestroy task\ndestroy module\n");
    unsetenv("HW_TEST_MODULE_LOG");
}

TEST(Engine, RefusedLibrariesAreUnloadedWithTheReasonLogged)
{
    Framework::Engine engine;
    TestSupport::LoggerCapture log(Poco::Logger::get("framework"));
    EXPECT_EQ(engine.LoadModule("/no/such/libmodule.so"), -1);
    EXPECT_EQ(engine.LoadModule(HW_NOT_A_MODULE), -1);
    EXPECT_FALSE(Mapped(HW_NOT_A_MODULE)) << "a library without CreateModule";
    const std::string library = HW_TEST_MODULE;
    const std::pair<const char*, std::string> refusals[] = {
        {"HW_TEST_MODULE_FAIL_INIT=1", "Init of module echo_module failed."},
        {"HW_TEST_MODULE_NO_MODULE=1", "CreateModule of " + library + " returned no module."},
        {"HW_TEST_MODULE_THROW=std", "CreateModule of " + library + " failed: no memory for the module"},
        {"HW_TEST_MODULE_THROW=other", "CreateModule of " + library + " failed with an exception of unknown type."}};
    for (const auto& [refusal, logged] : refusals) {
        putenv(const_cast<char*>(refusal));
        EXPECT_EQ(engine.LoadModule(HW_TEST_MODULE), -1) << refusal;
        unsetenv(std::string(refusal).substr(0, std::string(refusal).find('=')).c_str());
        EXPECT_FALSE(Mapped(HW_TEST_MODULE)) << refusal;
        EXPECT_TRUE(log.channel().Has(logged)) << refusal << ": " << logged;
    }
    EXPECT_EQ(engine.LoadModulesFrom("/no/such/dir"), 0);
    EXPECT_TRUE(engine.ModuleNames().empty());
}

// The library's task leaves a message of its own making in the queue of a task loaded before it;
// that queue is destroyed with its module, which must happen while the library is still loaded.
TEST(Engine, NoLibraryIsUnloadedWhileAQueueHoldsItsMessages)
{
    TestSupport::TempDir dir;
    const std::string log = dir.path() + "/module.log";
    setenv("HW_TEST_MODULE_LOG", log.c_str(), 1);
    {
        Framework::Engine engine;
        auto* client = new ClientTask;
        ASSERT_EQ(engine.AddModule(Tasks({client})), 0);
        setenv("HW_TEST_MODULE_UNINIT_PING", "client_task", 1);
        ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        engine.StopAll();
        unsetenv("HW_TEST_MODULE_UNINIT_PING");
    }
    unsetenv("HW_TEST_MODULE_LOG");
    EXPECT_FALSE(Mapped(HW_TEST_MODULE));
    EXPECT_NE(ReadFile(log).find("destroy module"), std::string::npos) << "the module was destroyed, not leaked";
}

TEST(Engine, AnExceptionStopsItsTaskButNotTheAgent)
{
    Framework::Engine engine;  // first: Poco's application gives every logger a console channel
    TestSupport::LoggerCapture log(Poco::Logger::get("framework"));
    ASSERT_EQ(engine.LoadModule(HW_TEST_MODULE), 0);
    auto* throwing = new ClientTask("throwing_task");
    auto* client = new ClientTask;
    ASSERT_EQ(engine.AddModule(Tasks({throwing, client}, "two_tasks")), 0);
    ASSERT_EQ(engine.StartTasks(), 0);
    ASSERT_TRUE(client->SendDirectMsg("throwing_task", new PingMessage("client_task", -7)));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return log.channel().Has("Task throwing_task stopped by an exception: bad ping"); }));
    EXPECT_EQ(throwing->GetState(), Framework::kTaskStop);
    EXPECT_EQ(engine.FindTask("throwing_task"), nullptr) << "its name route is withdrawn";
    // The rest of the agent goes on.
    ASSERT_TRUE(client->SendDirectMsg("echo_task", new PingMessage("client_task", 7)));
    EXPECT_TRUE(client->answers.WaitFor([](int seq) { return seq == 1007; }));
    engine.StopAll();
}

// The engine run as the agent's main job, its wait ended at once.
class MainJob : public Framework::Engine {
public:
    using Framework::Engine::main;
    std::vector<std::string> running;

protected:
    void WaitForStop() override { running = ModuleNames(); }
};

TEST(Engine, TheMainJobRunsTheModulesOfTheInstallationUntilAskedToStop)
{
    TestSupport::TempDir home;
    std::filesystem::create_directories(home.path() + "/lib/modules");
    std::filesystem::copy_file(HW_TEST_MODULE, home.path() + "/lib/modules/libecho_module.so");
    setenv("HOSTWARDEN_HOME", home.path().c_str(), 1);
    MainJob engine;
    EXPECT_EQ(engine.main({}), Framework::Engine::EXIT_OK);
    EXPECT_EQ(engine.running, std::vector<std::string>{"echo_module"});
    EXPECT_TRUE(engine.ModuleNames().empty()) << "stopped";
    unsetenv("HOSTWARDEN_HOME");
}

// The agent's main wait outlasts its periods of handing memory back (5 s) and a reload, and ends
// on a stop request.
TEST(Engine, TheWaitForStopOutlastsItsMemoryTrimAndAReloadAndEndsOnAStopRequest)
{
    struct Waiting : Framework::Engine {
        using Framework::Engine::WaitForStop;
    };
    Framework::Engine::BlockTerminationSignals();
    Waiting engine;
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        engine.WaitForStop();
        returned = true;
    });
    EXPECT_FALSE(TestSupport::WaitUntil([&] { return returned.load(); }, 6)) << "still waiting past a trim period";
    kill(getpid(), SIGHUP);
    EXPECT_FALSE(TestSupport::WaitUntil([&] { return returned.load(); }, 1)) << "still waiting after a reload";
    engine.RequestStop(0);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return returned.load(); }));
    waiter.join();
}
