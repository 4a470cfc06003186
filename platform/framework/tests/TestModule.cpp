// A module library used by the engine tests. Its task answers each PingMessage by sending a
// PingMessage back to the task named in it; its life-cycle steps are appended to the file named
// by HW_TEST_MODULE_LOG so the test can check the engine's order of calls. With
// HW_TEST_MODULE_FAIL_INIT set its Init fails, with HW_TEST_MODULE_NO_MODULE its CreateModule
// returns none; with HW_TEST_MODULE_UNINIT_PING set its task sends a PingMessage (made by this
// library's code) to the task of that name when it is un-initialised.
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
        if (const char* target = std::getenv("HW_TEST_MODULE_UNINIT_PING")) {
            SendDirectMsg(target, new PingMessage(GetName(), -1));
        }
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
        if (std::getenv("HW_TEST_MODULE_FAIL_INIT") != nullptr) {
            return -1;
        }
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
    return std::getenv("HW_TEST_MODULE_NO_MODULE") != nullptr ? nullptr : new EchoModule;
}
