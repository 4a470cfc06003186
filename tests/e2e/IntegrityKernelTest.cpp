// File integrity against the real kernel: what changed while the agent was stopped is reported at
// its next start, once, with the values before and after; live changes carry hashes before and
// after; and `hostwarden baseline` tells an operator the same.
#include "KernelAudit.h"

#include <openssl/evp.h>

using Json = Poco::JSON::Object::Ptr;
using TestSupport::ReadFile;

namespace {

class IntegrityKernel : public E2E::KernelTest {
protected:
    // Writes the configuration: one recursive watch of watched_ tagged "fim", the baseline in
    // the scratch directory.
    void Configure()
    {
        watched_ = dir_ + "/watched";
        events_ = dir_ + "/events.jsonl";
        std::filesystem::create_directories(watched_ + "/sub");
        std::ofstream(home_ + "/etc/hostwarden.json")
            << R"({"output": {"file": ")" << events_ << R"(", "stdout": false},
            "file_integrity": {"baseline": ")" << dir_ << R"(/state/baseline.db"},
            "subscriptions": [{"tag": "fim", "watch": ")" << watched_ << R"(", "recursive": true}]})";
    }

    // Runs the agent until its start-up scan of the watched tree has ended and the kernel holds
    // its watch; the scan's log line.
    std::unique_ptr<TestSupport::Program> Start(const std::string& scanLine)
    {
        auto run = Hostwarden({"run"});
        EXPECT_TRUE(run->WaitFor(scanLine + watched_ + ":", false)) << run->err;
        EXPECT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;
        return run;
    }

    static void Stop(std::unique_ptr<TestSupport::Program>& run)
    {
        run->Signal(SIGTERM);
        EXPECT_EQ(run->Wait(), 0) << run->err;
    }

    // The lines about path written since the output held skip lines.
    std::vector<Json> About(const std::string& path, size_t skip = 0) const
    {
        std::vector<Json> found;
        const auto lines = E2E::JsonLines(ReadFile(events_));
        for (size_t i = skip; i < lines.size(); ++i) {
            if (lines[i]->has("file") && lines[i]->getObject("file")->getValue<std::string>("path") == path) {
                found.push_back(lines[i]);
            }
        }
        return found;
    }

    std::string watched_;
    std::string events_;
};

std::string Sha256(const std::string& text)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(text.data(), text.size(), out, &size, EVP_sha256(), nullptr);
    std::string hex;
    char digit[3];
    for (unsigned i = 0; i < size; ++i) {
        std::snprintf(digit, sizeof(digit), "%02x", out[i]);
        hex += digit;
    }
    return hex;
}

std::string At(const Json& line, const std::string& dotted)
{
    std::string rest = dotted;
    Json object = line;
    for (size_t dot; (dot = rest.find('.')) != std::string::npos; rest = rest.substr(dot + 1)) {
        object = object ? object->getObject(rest.substr(0, dot)) : nullptr;
    }
    return object && object->has(rest) ? object->get(rest).toString() : std::string("<none>");
}

std::string Changes(const Json& line)
{
    const auto array = line->getObject("hostwarden")->getObject("file")->getArray("changes");
    std::string text;
    for (size_t i = 0; array && i < array->size(); ++i) {
        text += (i == 0 ? "" : ",") + array->getElement<std::string>(static_cast<unsigned>(i));
    }
    return text;
}

}  // namespace

TEST_F(IntegrityKernel, ChangesWhileStoppedAreReportedOnceAtStartAndLiveChangesCarryHashesBeforeAndAfter)
{
    Configure();
    std::ofstream(watched_ + "/edited") << "first";
    std::ofstream(watched_ + "/sub/removed") << "doomed";
    std::ofstream(watched_ + "/chmoded") << "mode";
    std::ofstream(watched_ + "/same") << "same bytes";
    chmod((watched_ + "/chmoded").c_str(), 0644);
    auto run = Start("Recorded the baseline of ");
    Stop(run);
    EXPECT_TRUE(About(watched_ + "/edited").empty()) << "the first recording reports nothing";

    // While the agent is stopped.
    std::ofstream(watched_ + "/edited") << "second, longer";
    std::ofstream(watched_ + "/sub/created") << "new";
    std::filesystem::remove(watched_ + "/sub/removed");
    chmod((watched_ + "/chmoded").c_str(), 0600);
    auto check = Hostwarden({"baseline", "check"});
    EXPECT_EQ(check->Wait(), 1) << "the operator's check sees them too\n" << check->out << check->err;

    const size_t before = E2E::JsonLines(ReadFile(events_)).size();
    run = Start("Compared ");
    // The findings are written at the end of the scan's last turn, after its log line.
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !About(watched_ + "/chmoded", before).empty(); }, 10));
    const auto found = [&](const std::string& name) {
        const auto lines = About(watched_ + name, before);
        EXPECT_EQ(lines.size(), 1U) << name << " is reported once:\n" << ReadFile(events_);
        return lines.empty() ? Json() : lines.front();
    };
    const Json edited = found("/edited");
    ASSERT_TRUE(edited);
    EXPECT_EQ(At(edited, "event.action"), "modify");
    EXPECT_EQ(At(edited, "event.reason"), "start-up scan: changed while the agent was not running");
    EXPECT_EQ(Changes(edited), "content,size,mtime");
    EXPECT_EQ(At(edited, "file.hash.sha256"), Sha256("second, longer"));
    EXPECT_EQ(At(edited, "hostwarden.file.before.hash.sha256"), Sha256("first"));
    EXPECT_EQ(At(edited, "hostwarden.file.before.size") + " " + At(edited, "file.size"), "5 14");
    EXPECT_EQ(edited->getArray("tags")->getElement<std::string>(0), "fim");

    const Json created = found("/sub/created");
    ASSERT_TRUE(created);
    EXPECT_EQ(At(created, "event.action") + " " + At(created, "file.hash.sha256"), "create " + Sha256("new"));
    EXPECT_EQ(At(created, "hostwarden.file.before"), "<none>");

    const Json removed = found("/sub/removed");
    ASSERT_TRUE(removed);
    EXPECT_EQ(At(removed, "event.action"), "delete");
    EXPECT_EQ(At(removed, "event.reason"), "start-up scan: deleted while the agent was not running");
    EXPECT_EQ(At(removed, "hostwarden.file.before.hash.sha256"), Sha256("doomed"));
    EXPECT_EQ(At(removed, "hostwarden.file.before.size"), "6");

    const Json chmoded = found("/chmoded");
    ASSERT_TRUE(chmoded);
    EXPECT_EQ(At(chmoded, "event.action"), "attrib");
    EXPECT_EQ(Changes(chmoded), "mode");
    EXPECT_EQ(At(chmoded, "hostwarden.file.before.mode") + " " + At(chmoded, "file.mode"), "0644 0600");
    EXPECT_EQ(At(chmoded, "hostwarden.file.content"), "unchanged");
    EXPECT_TRUE(About(watched_ + "/same", before).empty()) << "an unchanged file is not reported";

    // Live: an edit carries both hashes; writing the same bytes again says the content did not
    // change. (A shell's '>' empties the file first: should the agent read it in between, the
    // re-check reports the rest, so the first line has the hash before and the last the hash after.)
    const size_t live = E2E::JsonLines(ReadFile(events_)).size();
    TestSupport::Program({"/bin/sh", "-c", "printf 'third' > " + watched_ + "/edited"}).Wait();
    TestSupport::Program({"/usr/bin/python3", "-c", "open('" + watched_ + "/same', 'r+').write('same bytes')"}).Wait();
    std::vector<Json> edits;
    Json sameWrite;
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        edits = About(watched_ + "/edited", live);
        const auto sames = About(watched_ + "/same", live);
        sameWrite = sames.empty() ? Json() : sames.back();
        return !edits.empty() && At(edits.back(), "file.hash.sha256") == Sha256("third") && sameWrite;
    })) << ReadFile(events_);
    EXPECT_EQ(At(edits.front(), "event.action"), "modify");
    EXPECT_EQ(At(edits.front(), "event.reason"), "<none>");
    EXPECT_EQ(At(edits.front(), "hostwarden.file.before.hash.sha256"), Sha256("second, longer"));
    EXPECT_EQ(At(edits.front(), "hostwarden.file.content"), "changed");
    EXPECT_EQ(At(edits.front(), "process.name"), "sh");
    EXPECT_EQ(At(sameWrite, "hostwarden.file.content"), "unchanged");
    EXPECT_EQ(At(sameWrite, "file.hash.sha256"), Sha256("same bytes"));
    EXPECT_EQ(At(sameWrite, "hostwarden.file.before.hash.sha256"), "<none>") << "only what changed is given before";

    // The kernel reports a write when the file is opened: bytes written later are found when the
    // file is looked at again.
    // The file is opened; once its notification is out, the bytes come.
    const size_t late = E2E::JsonLines(ReadFile(events_)).size();
    const std::string go = dir_ + "/go";
    TestSupport::Program writer({"/usr/bin/python3", "-c",
                                 "import os, time\nf = open('" + watched_ + "/same', 'r+')\n"
                                 "while not os.path.exists('" + go + "'):\n    time.sleep(0.02)\n"
                                 "f.write('late bytes')\nf.close()\n"});
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !About(watched_ + "/same", late).empty(); })) << ReadFile(events_);
    EXPECT_EQ(At(About(watched_ + "/same", late).front(), "hostwarden.file.content"), "unchanged");
    std::ofstream(go) << "";
    writer.Wait();
    Json recheck;
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        for (const Json& line : About(watched_ + "/same", late)) {
            recheck = At(line, "event.reason").rfind("re-check", 0) == 0 ? line : recheck;
        }
        return static_cast<bool>(recheck);
    })) << ReadFile(events_);
    EXPECT_EQ(At(recheck, "event.reason"), "re-check: changed after its notification");
    EXPECT_EQ(At(recheck, "file.hash.sha256"), Sha256("late bytes"));
    EXPECT_EQ(At(recheck, "hostwarden.file.before.hash.sha256"), Sha256("same bytes"));
    Stop(run);

    // Nothing changed while stopped this time: the next start reports nothing and reads nothing.
    check = Hostwarden({"baseline", "check"});
    EXPECT_EQ(check->Wait(), 0) << check->out << check->err;
    run = Start("Compared ");
    EXPECT_NE(run->err.find("Compared " + watched_ + ": 6 entries, 0 read and hashed, 0 differences"), std::string::npos)
        << run->err;
    Stop(run);
}
