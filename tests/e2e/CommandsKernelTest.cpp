// hostwarden's commands for people, run as programs against the real kernel and auditd.
#include "KernelAudit.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

namespace {

class CommandsKernel : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = E2E::WhyKernelAuditIsUnusable();
        if (!why.empty()) {
            GTEST_SKIP() << "real-kernel test skipped: " << why;
        }
        install_ = std::make_unique<E2E::TestInstallation>();
        char pattern[] = "/tmp/hwe2e_cmd_XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override
    {
        if (!install_) {
            return;
        }
        const std::string rules = E2E::ListKernelRules();
        E2E::RemoveTestRules(dir_);
        EXPECT_EQ(rules.find(dir_), std::string::npos) << "rules left behind:\n" << rules;
        std::system(("rm -rf " + dir_).c_str());
    }
    std::unique_ptr<E2E::Program> Hostwarden(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{HW_HOSTWARDEN};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<E2E::Program>(argv, std::vector<std::string>{"HOSTWARDEN_HOME=" + install_->Home()});
    }
    static std::vector<Poco::JSON::Object::Ptr> JsonLines(const std::string& text)
    {
        std::vector<Poco::JSON::Object::Ptr> objects;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>());
        }
        return objects;
    }

    std::unique_ptr<E2E::TestInstallation> install_;
    std::string dir_;
};

}  // namespace

TEST_F(CommandsKernel, WatchPrintsNotificationsUntilInterruptedAndLeavesNoRule)
{
    auto watch = Hostwarden({"watch", dir_, "--recursive", "--events", "create,delete", "--tag", "t"});
    ASSERT_TRUE(watch->WaitFor("path(s) watched", false)) << watch->err;
    ASSERT_NE(E2E::ListKernelRules().find("-w " + dir_ + " "), std::string::npos);
    // One step after the other: a file must be indexed (on its create) before its delete can be named.
    mkdir((dir_ + "/d").c_str(), 0755);
    ASSERT_TRUE(watch->WaitFor("\"path\":\"" + dir_ + "/d\"", true)) << watch->out;
    std::system(("touch " + dir_ + "/d/f && echo x >> " + dir_ + "/d/f").c_str());
    ASSERT_TRUE(watch->WaitFor("\"path\":\"" + dir_ + "/d/f\"", true)) << watch->out;
    std::system(("rm " + dir_ + "/d/f").c_str());
    ASSERT_TRUE(watch->WaitFor("\"delete\"", true)) << watch->out;
    watch->Signal(SIGINT);
    EXPECT_EQ(watch->Wait(), 0) << watch->err;

    const std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(watch->out);
    ASSERT_EQ(lines.size(), 3U) << watch->out << "(the modify is not asked for)";
    const std::string kinds[] = {"create", "create", "delete"};
    const std::string paths[] = {dir_ + "/d", dir_ + "/d/f", dir_ + "/d/f"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i]->getValue<std::string>("tag"), "t");
        EXPECT_EQ(lines[i]->getValue<std::string>("kind"), kinds[i]);
        EXPECT_EQ(lines[i]->getValue<std::string>("path"), paths[i]);
    }
    EXPECT_TRUE(lines[0]->getValue<bool>("isDir"));
    EXPECT_EQ(lines[0]->getValue<int>("event"), 256);
    EXPECT_EQ(lines[0]->getObject("extra")->getValue<std::string>("syscall"), "83") << "mkdir";
    EXPECT_EQ(E2E::ListKernelRules().find(dir_), std::string::npos) << "unwatched on exit";
}
