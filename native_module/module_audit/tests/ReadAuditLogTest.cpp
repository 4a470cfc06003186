// The log reader against real files, for every way a log changes under it. Each scenario says
// which lines arrive and which are lost by design.
#include "ReadAuditLog.h"

#include "TestSupport.h"

#include "sdk/StrUtils.h"

#include <Poco/String.h>

using namespace Engine;

namespace {

// Records what the reader hands over instead of assembling it.
class RecordingLog : public AuditLog {
public:
    RecordingLog() : AuditLog(nullptr, nullptr) {}
    void HandleOneLineLog(const std::string& line) override { lines.push_back(line); }
    void HandleNoEofScenarios() override { ++idlePolls; }
    std::vector<std::string> lines;
    int idlePolls = 0;
};

// Audit-like lines long enough that every file has a 64-byte head; n gives each its own text.
std::string Record(const std::string& file, int n)
{
    return "type=SYSCALL msg=audit(1795311540.000:" + std::to_string(n) + "): file=" + file + " n=" + std::to_string(n);
}

std::vector<std::string> Records(const std::string& file, int from, int to)
{
    std::vector<std::string> lines;
    for (int n = from; n <= to; ++n) {
        lines.push_back(Record(file, n));
    }
    return lines;
}

class Reader : public testing::Test {
protected:
    std::string Path() const { return dir_.path() + "/audit.log"; }
    void Append(const std::vector<std::string>& lines, bool lastNewline = true)
    {
        std::ofstream out(Path(), std::ios::app);
        for (size_t i = 0; i < lines.size(); ++i) {
            out << lines[i] << (i + 1 < lines.size() || lastNewline ? "\n" : "");
        }
    }
    void Start()
    {
        Append(Records("before", 1, 3));
        reader_->SetAuditLogPath(Path());
    }
    std::vector<std::string> Poll()
    {
        reader_->ReadOnceLog(log_);
        return std::exchange(log_.lines, {});
    }
    // The records "F N-M [F N-M]..." names, in order.
    static std::vector<std::string> Named(const std::vector<std::string>& words)
    {
        std::vector<std::string> lines;
        for (size_t i = 1; i + 1 < words.size() && !words[i].empty(); i += 2) {
            const std::string& range = words[i + 1];
            const std::vector<std::string> some =
                Records(words[i], std::stoi(range), std::stoi(range.substr(range.find('-') + 1)));
            lines.insert(lines.end(), some.begin(), some.end());
        }
        return lines;
    }
    std::string Expand(std::string text)
    {
        Poco::replaceInPlace(text, std::string("{path}"), Path());
        return Poco::replaceInPlace(text, std::string("{head}"), TestSupport::ReadFile(Path()).substr(0, 64));
    }
    // Runs one scenario of tables/reader-scenarios.txt (the steps are explained there).
    void Run(const std::string& steps)
    {
        TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
        for (const std::string& step : SDK::StrUtils::Split(steps, "; ")) {
            SCOPED_TRACE(step);
            const std::vector<std::string> arg = SDK::StrUtils::Split(step + "  ", " ");
            const std::string& verb = arg[0];
            const std::string text = step.size() > verb.size() ? step.substr(verb.size() + 1) : std::string();
            if (verb == "start") {
                Start();
            } else if (verb == "follow") {
                reader_->SetAuditLogPath(Path());
            } else if (verb == "append") {
                Append(Named(arg));
            } else if (verb == "poll") {
                EXPECT_EQ(Poll(), Named(arg));
            } else if (verb == "woken-poll") {
                reader_->ReadOnceLog(log_, false);
                EXPECT_TRUE(std::exchange(log_.lines, {}).empty());
            } else if (verb == "quiet-polls") {
                EXPECT_EQ(log_.idlePolls, std::stoi(arg[1]));
            } else if (verb == "rotate") {
                std::rename((Path() + ".1").c_str(), (Path() + ".2").c_str());
                ASSERT_EQ(std::rename(Path().c_str(), (Path() + ".1").c_str()), 0);
                std::ofstream(Path(), std::ios::trunc).flush();
            } else if (verb == "copy-truncate") {
                std::ofstream(Path() + ".1") << TestSupport::ReadFile(Path());
                std::ofstream(Path(), std::ios::trunc).flush();
            } else if (verb == "truncate") {
                ASSERT_EQ(truncate(Path().c_str(), std::stol(arg[1]) * static_cast<long>(Record("before", 1).size() + 1)), 0);
            } else if (verb == "remove-log") {
                std::remove(Path().c_str());
            } else if (verb == "remove-rotated") {
                ASSERT_EQ(std::remove((Path() + ".1").c_str()), 0);
            } else if (verb == "short-log") {
                std::ofstream(Path(), std::ios::trunc) << "short\n";
            } else if (verb == "at-end") {
                EXPECT_EQ(reader_->position, static_cast<int64_t>(TestSupport::ReadFile(Path()).size()));
            } else if (verb == "resync") {
                EXPECT_EQ(reader_->position, -1);
            } else if (verb == "logged") {
                EXPECT_TRUE(capture.channel().Has(Expand(text))) << Expand(text);
            } else if (verb == "logged-times") {
                const std::vector<std::string> texts = capture.channel().Texts();
                EXPECT_EQ(std::count(texts.begin(), texts.end(), text.substr(arg[1].size() + 1)), std::stoi(arg[1]));
            } else if (verb == "polls") {
                for (int i = std::stoi(arg[1]); i > 0; --i) {
                    Poll();
                }
            } else {
                FAIL() << "unknown step";
            }
        }
    }

    TestSupport::TempDir dir_;
    std::unique_ptr<ReadAuditLog> reader_ = std::make_unique<ReadAuditLog>();
    RecordingLog log_;
};

}  // namespace

class ReaderScenario : public Reader, public testing::WithParamInterface<TestSupport::TableRow> {};

TEST_P(ReaderScenario, FollowsTheLogThroughEveryWayItChanges)
{
    const std::vector<std::string>& row = GetParam().cells;
    ASSERT_GE(row.size(), 2U) << "the table holds no rows";
    SCOPED_TRACE(row[0]);
    const size_t before = TestSupport::OpenFileCount();
    Run(row[1]);
    reader_.reset();
    EXPECT_EQ(TestSupport::OpenFileCount(), before) << "the reader closes every file it held";
}

INSTANTIATE_TEST_SUITE_P(Rows, ReaderScenario,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_audit/tests/tables/reader-scenarios.txt", 0)),
                         TestSupport::TableRowName);

// A write seen cut short at a page boundary: its line waits until whole. Lines past 64 KiB arrive
// whole too; a line no audit record could be (over 1 MiB) is skipped and counted, and the next
// one arrives.
TEST_F(Reader, LinesArriveWholeWhateverTheirLengthAndOnlyOnceComplete)
{
    Start();
    Append({Record("log", 1), "type=PATH msg=audit(1795311540.000:9): ite"}, false);
    EXPECT_EQ(Poll(), Records("log", 1, 1));
    Append({"m=0 name=\"/a\"", Record("log", 2)});
    EXPECT_EQ(Poll(), (std::vector<std::string>{"type=PATH msg=audit(1795311540.000:9): item=0 name=\"/a\"", Record("log", 2)}));
    const std::string huge = "type=EXECVE msg=audit(1.000:1): a0=" + std::string(70000, 'x');
    Append({huge, Record("log", 3)});
    EXPECT_EQ(Poll(), (std::vector<std::string>{huge, Record("log", 3)}));
    Append({std::string(3 * 1024 * 1024, 'y'), Record("log", 4)});
    EXPECT_EQ(Poll(), Records("log", 4, 4));
    EXPECT_EQ(reader_->droppedLines, 1u);
}
