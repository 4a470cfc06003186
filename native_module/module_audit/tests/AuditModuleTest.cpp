// The module object and the shipped library's entry point.
#include "AuditModule.h"

#include "AuditTask.h"
#include "FileWatchAuditTask.h"

#include "framework/TaskRegistry.h"
#include "sdk/ExecuteCmdUtils.h"

#include "TestSupport.h"

namespace {

std::string g_destroyed;  // which tasks were destroyed, in order

class AuditTaskProbe : public Engine::AuditTask {
public:
    ~AuditTaskProbe() override { g_destroyed += "audit "; }
};

class FileWatchTaskProbe : public Engine::FileWatchAuditTask {
public:
    ~FileWatchTaskProbe() override { g_destroyed += "filewatch "; }
};

// Tasks whose destruction is recorded; the task numbered failAt (1: audit, 2: file watch) cannot be made.
Engine::AuditModule::TaskFactory Factory(int failAt)
{
    return {[failAt]() -> Engine::AuditTask* { return failAt == 1 ? nullptr : new AuditTaskProbe; },
            [failAt]() -> Engine::FileWatchAuditTask* { return failAt == 2 ? nullptr : new FileWatchTaskProbe; }};
}

}  // namespace

TEST(AuditModule, CreatesBothTasksAtInitAndDestroysTheAuditTaskFirst)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_INFORMATION);
    g_destroyed.clear();
    {
        Engine::AuditModule module(Factory(0));
        EXPECT_TRUE(module.GetTasks().empty()) << "no task before Init";
        Framework::TaskRegistry registry;
        module.AttachRegistry(&registry);
        ASSERT_EQ(module.Init(), 0);
        std::string names;
        for (Framework::Task* task : module.GetTasks()) {
            names += task->GetName() + "/" + task->GetFeatureName() + " ";
            registry.Add(task);
        }
        EXPECT_EQ(names, "audit_task/audit_feature filewatch_audit_task/audit_feature ");
        module.UnInit();
        EXPECT_EQ(registry.Find("audit_task"), nullptr) << "name routes withdrawn";
        EXPECT_EQ(registry.Find("filewatch_audit_task"), nullptr);
        EXPECT_EQ(g_destroyed, "") << "UnInit destroys no task";
    }
    EXPECT_EQ(g_destroyed, "audit filewatch ");
    EXPECT_EQ(capture.channel().Texts(), (std::vector<std::string>{"Init audit module.", "Uninit audit module."}));
}

TEST(AuditModule, ATaskThatCannotBeMadeUndoesWhatInitDidAndNothingIsDestroyedTwice)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    for (const auto& [failAt, logged, destroyed] : {std::tuple<int, const char*, const char*>{1, "New task(audit_task) failed.", ""},
                                                   {2, "New task(filewatch_audit_task) failed.", "audit "}}) {
        g_destroyed.clear();
        capture.channel().Clear();
        {
            Engine::AuditModule module(Factory(failAt));
            EXPECT_EQ(module.Init(), -1);
            EXPECT_TRUE(module.GetTasks().empty()) << "the registration undone";
            EXPECT_EQ(g_destroyed, destroyed) << "destroyed in Init";
        }
        EXPECT_EQ(g_destroyed, destroyed) << "and not again by the destructor";
        EXPECT_EQ(capture.channel().Texts(), std::vector<std::string>{logged});
        EXPECT_EQ(capture.channel().Messages()[0].getPriority(), Poco::Message::PRIO_ERROR);
    }
}

// The library the agent loads: CreateModule is its one exported function.
TEST(AuditModule, TheShippedLibraryExportsCreateModuleAlone)
{
    std::string symbols;
    ASSERT_EQ(SDK::ExecuteCmdUtils::ExecuteCmd("nm -D --defined-only " HW_AUDIT_MODULE, symbols, 1 << 20), 0);
    std::string functions;
    std::istringstream lines(symbols);
    for (std::string address, type, name; lines >> address >> type >> name;) {
        functions += type == "T" ? name + " " : "";
    }
    EXPECT_EQ(functions, "CreateModule ");
}
