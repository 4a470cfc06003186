#pragma once

#include "framework/Module.h"

#include <string>
#include <vector>

namespace TestSupport {

/// A module made of the given tasks, registered in order; the module owns them when owns is set.
class TasksModule : public Framework::Module {
public:
    TasksModule(std::vector<Framework::Task*> tasks, bool owns = true, const std::string& name = "test_module")
        : Framework::Module(name), tasks_(std::move(tasks)), owns_(owns)
    {
    }
    int Init() override
    {
        for (Framework::Task* task : tasks_) {
            if (RegisterTask(task, owns_) != 0) {
                return -1;
            }
        }
        return 0;
    }

private:
    std::vector<Framework::Task*> tasks_;
    bool owns_;
};

}  // namespace TestSupport
