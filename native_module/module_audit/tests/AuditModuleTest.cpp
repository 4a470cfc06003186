// The module object and the shipped library's entry point. This program replaces the allocator:
// the non-throwing form, which the module uses for its two tasks, fails on request and records
// what it returned, and deletion records which of those go, in order.
#include "AuditModule.h"

#include "AuditConstants.h"
#include "AuditTask.h"
#include "FileWatchAuditTask.h"

#include "framework/TaskRegistry.h"
#include "sdk/ExecuteCmdUtils.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>
#include <sstream>
#include <vector>

namespace {

// The bookkeeping allocates nothing: the hooks below must not call themselves.
struct Allocations {
    std::mutex mutex;
    int failAt = 0;         // the nothrow allocation (1-based) that fails; 0 for none
    int count = 0;          // nothrow allocations so far
    void* made[8] = {};     // what they returned, in order
    size_t madeCount = 0;
    void* deleted[8] = {};  // which of those were deleted, in order
    size_t deletedCount = 0;
};
Allocations g_allocations;

void Reset(int failAt)
{
    std::lock_guard<std::mutex> lock(g_allocations.mutex);
    g_allocations.failAt = failAt;
    g_allocations.count = 0;
    g_allocations.madeCount = 0;
    g_allocations.deletedCount = 0;
}

std::vector<void*> Made()
{
    std::lock_guard<std::mutex> lock(g_allocations.mutex);
    return std::vector<void*>(g_allocations.made, g_allocations.made + g_allocations.madeCount);
}

std::vector<void*> Deleted()
{
    std::lock_guard<std::mutex> lock(g_allocations.mutex);
    return std::vector<void*>(g_allocations.deleted, g_allocations.deleted + g_allocations.deletedCount);
}

void Release(void* pointer)
{
    {
        std::lock_guard<std::mutex> lock(g_allocations.mutex);
        Allocations& a = g_allocations;
        if (std::find(a.made, a.made + a.madeCount, pointer) != a.made + a.madeCount && a.deletedCount < 8) {
            a.deleted[a.deletedCount++] = pointer;
        }
    }
    std::free(pointer);
}

}  // namespace

// Every form goes through malloc and free, so they pair up whatever the build's sanitizer.
void* operator new(std::size_t size)
{
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    {
        std::lock_guard<std::mutex> lock(g_allocations.mutex);
        if (++g_allocations.count == g_allocations.failAt) {
            return nullptr;
        }
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    std::lock_guard<std::mutex> lock(g_allocations.mutex);
    if (memory != nullptr && g_allocations.madeCount < 8) {
        g_allocations.made[g_allocations.madeCount++] = memory;
    }
    return memory;
}

void operator delete(void* pointer) noexcept
{
    Release(pointer);
}

void operator delete(void* pointer, std::size_t) noexcept
{
    Release(pointer);
}

namespace {

std::vector<std::string> TaskNames(const Framework::Module& module)
{
    std::vector<std::string> names;
    for (const Framework::Task* task : module.GetTasks()) {
        names.push_back(task->GetName());
    }
    return names;
}

}  // namespace

TEST(AuditModule, CreatesBothTasksAndDestroysTheAuditTaskFirst)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_INFORMATION);
    Reset(0);
    {
        Engine::AuditModule module;
        EXPECT_EQ(module.GetName(), "audit_module");
        EXPECT_TRUE(Made().empty()) << "no task before Init";
        Framework::TaskRegistry registry;
        module.AttachRegistry(&registry);
        ASSERT_EQ(module.Init(), 0);
        EXPECT_EQ(TaskNames(module), (std::vector<std::string>{"audit_task", "filewatch_audit_task"}));
        for (Framework::Task* task : module.GetTasks()) {
            EXPECT_EQ(task->GetFeatureName(), "audit_feature");
            registry.Add(task);
        }
        module.UnInit();
        EXPECT_EQ(registry.Find("audit_task"), nullptr) << "name routes withdrawn";
        EXPECT_EQ(registry.Find("filewatch_audit_task"), nullptr);
        EXPECT_TRUE(Deleted().empty()) << "UnInit destroys no task";
    }
    ASSERT_EQ(Made().size(), 2U);
    EXPECT_EQ(Deleted(), Made()) << "the audit task, then the file-watch task";
    EXPECT_EQ(capture.channel().Texts(), (std::vector<std::string>{"Init audit module.", "Uninit audit module."}));
    for (const Poco::Message& line : capture.channel().Messages()) {
        EXPECT_EQ(line.getPriority(), Poco::Message::PRIO_INFORMATION) << line.getText();
    }

    Reset(0);
    { Engine::AuditModule never; }
    EXPECT_TRUE(Deleted().empty()) << "destroyed without Init";
}

TEST(AuditModule, AFailedAllocationUndoesWhatInitDidAndNothingIsDestroyedTwice)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    Reset(1);
    {
        Engine::AuditModule module;
        EXPECT_EQ(module.Init(), -1);
        EXPECT_TRUE(module.GetTasks().empty());
        EXPECT_TRUE(Made().empty());
    }
    EXPECT_TRUE(Deleted().empty());
    EXPECT_EQ(capture.channel().Texts(), std::vector<std::string>{"New task(audit_task) failed."});
    EXPECT_EQ(capture.channel().Messages()[0].getPriority(), Poco::Message::PRIO_ERROR);

    capture.channel().Clear();
    Reset(2);
    {
        Engine::AuditModule module;
        EXPECT_EQ(module.Init(), -1);
        EXPECT_TRUE(module.GetTasks().empty()) << "the audit task's registration undone";
        ASSERT_EQ(Made().size(), 1U);
        EXPECT_EQ(Deleted(), Made()) << "the audit task is destroyed in Init";
    }
    EXPECT_EQ(Deleted().size(), 1U) << "and not again by the destructor";
    EXPECT_EQ(capture.channel().Texts(), std::vector<std::string>{"New task(filewatch_audit_task) failed."});
}

// The library the agent loads: CreateModule is its one exported function.
TEST(AuditModule, TheShippedLibraryExportsCreateModuleAlone)
{
    std::string symbols;
    ASSERT_EQ(SDK::ExecuteCmdUtils::ExecuteCmd("nm -D --defined-only " HW_AUDIT_MODULE, symbols, 1 << 20), 0);
    std::vector<std::string> functions;
    std::istringstream lines(symbols);
    for (std::string address, type, name; lines >> address >> type >> name;) {
        if (type == "T") {
            functions.push_back(name);
        }
    }
    EXPECT_EQ(functions, std::vector<std::string>{"CreateModule"});

    void* library = dlopen(HW_AUDIT_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto create = reinterpret_cast<Framework::Module* (*)()>(dlsym(library, "CreateModule"));
    ASSERT_NE(create, nullptr);
    Framework::Module* module = create();
    ASSERT_EQ(module->Init(), 0);
    EXPECT_EQ(TaskNames(*module), (std::vector<std::string>{"audit_task", "filewatch_audit_task"}));
    module->UnInit();
    delete module;
    EXPECT_EQ(dlclose(library), 0);
}
