// A module library used by the engine tests. Its task answers each PingMessage by sending a
// PingMessage back to the task named in it; its life-cycle steps are appended to the file named
// by HW_TEST_MODULE_LOG so the test can check the engine's order of calls.
#include "TestMessages.h"

#include "framework/Module.h"
#include "framework/TaskCondition.h"

#include <cstdlib>
#include <fstream>

namespace {

void Note(const std::string& step)
{
    if (const char* path = std::getenv("HW_TEST_MODULE_LOG")) {
        std::ofstream(path, std::ios::app) << step << "\n";
    }
}

class EchoTask : public Framework::Task, public PingReceiver {
public:
    EchoTask() : Framework::Task("echo_task", "test_feature", Framework::TaskCondition::kLoop, 16) {}
    ~EchoTask() override { Note("destroy task"); }
    int Init() override
    {
        Note("init task");
        return Framework::Task::Init();
    }
    void UnInit() override
    {
        Note("uninit task");
        Framework::Task::UnInit();
    }
    int OnPing(const PingMessage& msg) override
    {
        SendDirectMsg(msg.sender, new PingMessage(GetName(), msg.seq + 1000));
        return 0;
    }
};

class EchoModule : public Framework::Module {
public:
    EchoModule() : Framework::Module("echo_module") {}
    ~EchoModule() override
    {
        delete task_;
        Note("destroy module");
    }
    int Init() override
    {
        task_ = new EchoTask;
        RegisterTask(task_, false);
        return Framework::Module::Init();
    }
    void UnInit() override
    {
        Note("uninit module");
        UnRegisterTaskletCallback("echo_task");
        Framework::Module::UnInit();
    }

private:
    EchoTask* task_ = nullptr;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    return new EchoModule;
}
