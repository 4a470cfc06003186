// The engine tests' module library: its task echoes each PingMessage (seq + 1000), and it logs its
// life cycle to $HW_TEST_MODULE_LOG. HW_TEST_MODULE_FAIL_INIT fails its Init, HW_TEST_MODULE_NO_MODULE
// its CreateModule, HW_TEST_MODULE_THROW=std|other makes CreateModule throw; HW_TEST_MODULE_UNINIT_PING
// names a task its UnInit sends a ping of its own to.
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
    if (const char* what = std::getenv("HW_TEST_MODULE_THROW")) {
        if (std::string(what) == "std") {
            throw std::runtime_error("no memory for the module");
        }
        throw 42;
    }
    return std::getenv("HW_TEST_MODULE_NO_MODULE") != nullptr ? nullptr : new EchoModule;
}
