// What `hostwarden run` exports for real actions: ECS lines that say who did what, from which
// parent, to which address or file, with the arguments decoded and the user names resolved.
#include "KernelAudit.h"

#include <sys/stat.h>

using Json = Poco::JSON::Object::Ptr;
using TestSupport::ReadFile;

namespace {

class EcsKernel : public E2E::KernelTest {};

std::vector<std::string> Strings(const Poco::JSON::Array::Ptr& array)
{
    std::vector<std::string> texts;
    for (size_t i = 0; array && i < array->size(); ++i) {
        texts.push_back(array->getElement<std::string>(static_cast<unsigned>(i)));
    }
    return texts;
}

}  // namespace

TEST_F(EcsKernel, RunExportsWhoDidWhatFromWhichParentWithNamesAndDecodedArguments)
{
    const std::string watched = dir_ + "/watched";
    std::filesystem::create_directories(watched);
    chmod(dir_.c_str(), 0755);
    chmod(watched.c_str(), 0777);
    const std::string program = dir_ + "/my prog";  // a blank in the program's path
    std::filesystem::copy_file("/bin/echo", program);
    chmod(program.c_str(), 0755);
    const std::string events = dir_ + "/events.jsonl";
    std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": {"file": ")" << events << R"(", "stdout": false},
        "subscriptions": [
        {"tag": "exec", "syscall": "exit,always -F arch=b64 -S execve,execveat"},
        {"tag": "connect", "syscall": "exit,always -F arch=b64 -S connect"},
        {"tag": "files", "watch": ")" << watched << R"("}]})";
    auto run = Hostwarden({"run"});
    ASSERT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;

    // From a shell that goes on after the program, so the program's parent is the shell.
    const std::string script = "cd " + dir_ + " && \"" + program + "\" 'hwe2e first' second; true";
    TestSupport::Program({"/bin/sh", "-c", script}).Wait();
    const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    std::vector<std::string> connect = nobody;
    connect.insert(connect.end(), {"/usr/bin/python3", "-c", "import socket; socket.socket().connect_ex(('127.0.0.1', 9))"});
    TestSupport::Program(connect).Wait();
    std::vector<std::string> touch = nobody;
    touch.insert(touch.end(), {"/usr/bin/touch", watched + "/by-nobody"});
    TestSupport::Program(touch).Wait();

    const auto find = [&](const std::function<bool(const Json&)>& match) {
        Json found;
        TestSupport::WaitUntil([&] { return static_cast<bool>(found = Find(E2E::JsonLines(ReadFile(events)), match)); });
        return found;
    };
    const Json exec = find([&](const Json& e) {
        return e->has("process") && e->getObject("process")->optValue<std::string>("executable", "") == program;
    });
    ASSERT_TRUE(exec) << ReadFile(events);
    const Json process = exec->getObject("process");
    EXPECT_EQ(Strings(process->getArray("args")), (std::vector<std::string>{program, "hwe2e first", "second"}));
    EXPECT_EQ(process->getValue<int>("args_count"), 3);
    EXPECT_EQ(process->getValue<std::string>("working_directory"), dir_);
    EXPECT_EQ(exec->getObject("event")->getValue<std::string>("action"), "execve");
    EXPECT_EQ(exec->getObject("event")->getValue<std::string>("outcome"), "success");
    EXPECT_EQ(Strings(exec->getArray("tags")), std::vector<std::string>{"exec"});
    const Json user = exec->getObject("user");
    EXPECT_EQ(user->getValue<std::string>("id") + " " + user->getValue<std::string>("name") + " " +
                  user->getObject("effective")->getValue<std::string>("name") + " " +
                  user->getObject("group")->getValue<std::string>("name"),
              "0 root root root");
    const Json parent = process->getObject("parent");
    ASSERT_TRUE(parent) << "no parent";
    EXPECT_EQ(parent->getValue<std::string>("name"), "sh");
    EXPECT_EQ(parent->getValue<std::string>("executable"), "/usr/bin/dash");
    EXPECT_EQ(Strings(parent->getArray("args")), (std::vector<std::string>{"/bin/sh", "-c", script}));

    const Json net = find([](const Json& e) {
        return e->has("destination") && e->getObject("destination")->optValue<int>("port", 0) == 9;
    });
    ASSERT_TRUE(net) << ReadFile(events);
    EXPECT_EQ(net->getObject("destination")->getValue<std::string>("ip"), "127.0.0.1");
    EXPECT_EQ(net->getObject("network")->getValue<std::string>("type"), "ipv4");
    EXPECT_EQ(net->getObject("event")->getValue<std::string>("outcome"), "failure") << "nothing listens on port 9";
    EXPECT_EQ(net->getObject("user")->getValue<std::string>("id") + " " + net->getObject("user")->getValue<std::string>("name"),
              "65534 nobody");
    EXPECT_EQ(net->getObject("process")->getValue<std::string>("name"), "python3");

    const Json created = find([&](const Json& e) {
        return e->has("file") && e->getObject("file")->getValue<std::string>("path") == watched + "/by-nobody";
    });
    ASSERT_TRUE(created) << ReadFile(events);
    EXPECT_EQ(created->getObject("event")->getValue<std::string>("action"), "create");
    EXPECT_EQ(created->getObject("file")->getValue<std::string>("owner") + " " +
                  created->getObject("file")->getValue<std::string>("type"),
              "nobody file");
    EXPECT_EQ(created->getObject("user")->getValue<std::string>("name"), "nobody");
    EXPECT_EQ(created->getObject("process")->getValue<std::string>("name"), "touch");
    EXPECT_EQ(Strings(created->getArray("tags")), std::vector<std::string>{"files"});

    run->Signal(SIGTERM);
    EXPECT_EQ(run->Wait(), 0) << run->err;
}

TEST_F(EcsKernel, AConnectFloodByAnUnprivilegedUserIsHeldToTheRateLimitAndItsSummaryNamesTheUserAndProgram)
{
    const std::string events = dir_ + "/events.jsonl";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // A sanitized agent may handle fewer events a second than the default lets through.
    const int limit = 500;
    const std::string limitSetting = R"(, "rate_limit": 500)";
#else
    const int limit = 5000;  // the default
    const std::string limitSetting;
#endif
    std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": {"file": ")" << events
                                                  << R"(", "stdout": false, "rotate_size": "1 M", "keep": 1},
        "subscriptions": [{"tag": "connect", "syscall": "exit,always -F arch=b64 -S connect")" << limitSetting << "}]}";
    auto run = Hostwarden({"run"});
    ASSERT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;

    TestSupport::Program({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/usr/bin/python3",
                          "-c",
                          "import socket, time\n"
                          "end = time.time() + 3\n"
                          "while time.time() < end:\n"
                          "    s = socket.socket(); s.connect_ex(('127.0.0.1', 9)); s.close()\n"})
        .Wait();

    Json notice;
    ASSERT_TRUE(TestSupport::WaitUntil(
        [&] {
            for (const Json& line : E2E::JsonLines(ReadFile(events))) {
                if (line->has("hostwarden")) {
                    notice = line->getObject("hostwarden")->getObject("notice");
                }
            }
            return static_cast<bool>(notice);
        },
        30))
        << "no summary of the dropped events";
    EXPECT_EQ(notice->getValue<std::string>("action"), "rate-limited");
    EXPECT_EQ(notice->getValue<int>("limit"), limit);
    EXPECT_GT(notice->getValue<uint64_t>("dropped"), 0U);
    const Json user = notice->getArray("users")->getObject(0);
    EXPECT_EQ(user->getValue<std::string>("id") + " " + user->getValue<std::string>("name"), "65534 nobody");
    EXPECT_EQ(notice->getArray("programs")->getObject(0)->getValue<std::string>("executable").substr(0, 16),
              "/usr/bin/python3");

    // Rotated at a megabyte with one archive: the files stay within two megabytes and a turn's lines.
    struct stat st {};
    uint64_t bytes = 0;
    for (const std::string& file : {events, events + ".1"}) {
        bytes += stat(file.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    }
    EXPECT_LT(bytes, 3U << 20);
    EXPECT_NE(stat((events + ".2").c_str(), &st), 0) << "one archive kept";
    run->Signal(SIGTERM);
    EXPECT_EQ(run->Wait(), 0) << run->err;
}
