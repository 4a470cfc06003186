// The log reader against real files, for every way a log changes under it. Each scenario says
// which lines arrive and which are lost by design.
#include "ReadAuditLog.h"

#include "TestSupport.h"

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

// One step of a scenario. a: append file's records from..to; p: poll, which must hand over
// exactly those records (none without a file); s: follow a log that already holds lines, as
// auditd's does, so its head is known; r: auditd's rotation (the log moves to .1, a new one
// starts); c: logrotate's copy and truncate; t: cut the log back to its first `from` lines; x:
// remove the log; h: a predecessor (.1) too short for a head; l: the reader logged this text
// ({path} and {head} stand for the log and its first 64 bytes); e: the reader's position is the
// log's end; i: polls without new data so far; q: a poll that is not a quiet turn (the log's
// growth woke it), which must hand over nothing; w: the reader waits for a rotated log's new
// head (from 1) or not (0).
struct Step {
    char op;
    const char* file = nullptr;
    int from = 0;
    int to = 0;
};

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
        reader_.SetAuditLogPath(Path());
    }
    std::vector<std::string> Poll()
    {
        reader_.ReadOnceLog(log_);
        return std::exchange(log_.lines, {});
    }
    std::string Expand(std::string text)
    {
        const std::string head = TestSupport::ReadFile(Path()).substr(0, 64);
        for (const auto& [from, to] : {std::pair<std::string, std::string>{"{path}", Path()}, {"{head}", head}}) {
            const size_t at = text.find(from);
            text = at == std::string::npos ? text : text.replace(at, from.size(), to);
        }
        return text;
    }
    void Run(const std::vector<Step>& steps)
    {
        TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& s = steps[i];
            switch (s.op) {
            case 'a': Append(Records(s.file, s.from, s.to)); break;
            case 'p': EXPECT_EQ(Poll(), s.file ? Records(s.file, s.from, s.to) : std::vector<std::string>{}) << "step " << i; break;
            case 's': Start(); break;
            case 'r':
                std::rename((Path() + ".1").c_str(), (Path() + ".2").c_str());
                ASSERT_EQ(std::rename(Path().c_str(), (Path() + ".1").c_str()), 0);
                std::ofstream(Path(), std::ios::trunc).flush();
                break;
            case 'c':
                std::ofstream(Path() + ".1") << TestSupport::ReadFile(Path());
                std::ofstream(Path(), std::ios::trunc).flush();
                break;
            case 't': ASSERT_EQ(truncate(Path().c_str(), s.from * static_cast<long>(Record("before", 1).size() + 1)), 0); break;
            case 'x': std::remove(Path().c_str()); break;
            case 'h': std::ofstream(Path() + ".1", std::ios::trunc) << "short\n"; break;
            case 'l': EXPECT_TRUE(capture.channel().Has(Expand(s.file))) << "step " << i << ": " << Expand(s.file); break;
            case 'e': EXPECT_EQ(reader_.position, static_cast<int64_t>(TestSupport::ReadFile(Path()).size())) << "step " << i; break;
            case 'i': EXPECT_EQ(log_.idlePolls, s.from) << "step " << i; break;
            case 'q':
                reader_.ReadOnceLog(log_, false);
                EXPECT_TRUE(std::exchange(log_.lines, {}).empty()) << "step " << i;
                break;
            case 'w': EXPECT_EQ(reader_.WaitsForNewHead(), s.from == 1) << "step " << i; break;
            }
        }
    }

    TestSupport::TempDir dir_;
    ReadAuditLog reader_;
    RecordingLog log_;
};

}  // namespace

TEST_F(Reader, StartsAtTheEndAndDeliversNewLinesInOrder)
{
    // A quiet poll without new data completes a pending event; one the log's growth woke does not.
    Run({{'a', "a", 1, 5}, {'s'}, {'e'}, {'p'}, {'i', nullptr, 1}, {'q'}, {'i', nullptr, 1},
         {'a', "a", 6, 8}, {'p', "a", 6, 8}, {'p'}, {'i', nullptr, 2}});
}

TEST_F(Reader, FollowsAuditdsRotation)
{
    // Just after the rotation the new file is too short for a head: the reader waits (-1) and
    // resynchronises at the next poll.
    Run({{'s'}, {'a', "old", 1, 3}, {'p', "old", 1, 3}, {'w', nullptr, 0}, {'r'}, {'w', nullptr, 1}, {'p'}});
    EXPECT_EQ(reader_.position, -1);
    // The new file is shorter than our position in the old one: rotation is noticed and the new
    // file is read from its start in the same poll.
    Run({{'s'}, {'a', "old", 4, 6}, {'p', "old", 4, 6}, {'r'}, {'a', "new", 1, 2}, {'w', nullptr, 0}, {'p', "new", 1, 2},
         {'l', "Audit log({path}) maybe rotated."}, {'l', "Read audit log({path}) head({head}) success."},
         {'a', "new", 3, 3}, {'p', "new", 3, 3}});
}

TEST_F(Reader, RotationScenarios)
{
    const std::vector<std::pair<const char*, std::vector<Step>>> scenarios = {
        {"unread lines of the old file come first, at most 501 of them (old 504 to 700 are lost)",
         {{'s'}, {'a', "old", 1, 2}, {'p', "old", 1, 2}, {'a', "old", 3, 700}, {'r'}, {'a', "new", 1, 2},
          {'p', "old", 3, 503}, {'p', "new", 1, 2}}},
        {"an unreadable predecessor head skips to the end of the new file",
         {{'s'}, {'a', "old", 1, 4}, {'p', "old", 1, 4}, {'r'}, {'h'}, {'a', "new", 1, 2}, {'p'},
          {'l', "Get audit log({path}.1) head failed."}, {'e'}}},
        {"two rotations between polls lose what the reader never saw",
         {{'s'}, {'a', "first", 1, 5}, {'p', "first", 1, 5}, {'a', "first", 6, 7}, {'r'}, {'a', "second", 1, 4}, {'r'},
          {'a', "third", 1, 2}, {'p'}, {'a', "third", 3, 3}, {'p', "third", 3, 3}}},
        {"a complete copy and truncate loses nothing: the copy has the same head and is finished first",
         {{'s'}, {'a', "log", 1, 3}, {'p', "log", 1, 3}, {'a', "log", 4, 6}, {'c'}, {'a', "log", 7, 8}, {'p', "log", 4, 6},
          {'p', "log", 7, 8}}},
        {"a truncation in place (same head, smaller) skips to the new end",
         {{'s'}, {'a', "log", 1, 10}, {'p', "log", 1, 10}, {'t', nullptr, 4}, {'p'},
          {'l', "Audit log({path}) size changed smaller, but not rotated."}, {'e'}, {'a', "log", 11, 11}, {'p', "log", 11, 11}}},
        {"a deleted and recreated log: what the new file holds when found is skipped",
         {{'s'}, {'a', "old", 1, 10}, {'p', "old", 1, 10}, {'x'}, {'p'}, {'a', "new", 1, 2}, {'p'}, {'a', "new", 3, 3}, {'p', "new", 3, 3}}},
    };
    for (const auto& [what, steps] : scenarios) {
        SCOPED_TRACE(what);
        std::remove((Path() + ".1").c_str());
        std::remove(Path().c_str());
        reader_.Clear();
        Run(steps);
    }
}

TEST_F(Reader, APollHandsOverAtMost201LinesAndLosesNone)
{
    Start();
    Append(Records("a", 1, 1000));
    std::vector<std::string> all;
    for (const size_t expected : {201U, 201U, 201U, 201U, 196U}) {
        const std::vector<std::string> got = Poll();
        EXPECT_EQ(got.size(), expected);
        all.insert(all.end(), got.begin(), got.end());
    }
    EXPECT_EQ(all, Records("a", 1, 1000)) << "the 202nd line is read again by the next poll, not lost or doubled";
}

TEST_F(Reader, AMissingFileIsFollowedFromItsEndOnceItExists)
{
    {
        TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
        reader_.SetAuditLogPath(Path());
        EXPECT_TRUE(capture.channel().Has("Get audit log size and head failed, errno(2)."));
    }
    EXPECT_EQ(reader_.position, -1);
    Run({{'p'}, {'a', "late", 1, 2}, {'p'}, {'a', "late", 3, 3}, {'p', "late", 3, 3}});
}

TEST_F(Reader, AMissingFileIsReportedOnceInAThousandPolls)
{
    Run({{'s'}, {'x'}});
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    for (int i = 0; i < 999; ++i) {
        Poll();
    }
    EXPECT_TRUE(capture.channel().Texts().empty());
    Poll();
    EXPECT_EQ(capture.channel().Texts(), std::vector<std::string>{"Get audit log size failed, errno(2)."});
    EXPECT_EQ(reader_.sizeErrorCount, 0);
}

// auditd writes a line at once, but a reader can see the write cut short at a page boundary: a
// last line without its newline waits until it is whole, and nothing is lost. Lines longer than
// 64 KiB arrive whole too.
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
}

TEST_F(Reader, AShortFileHasNoHeadSoAShrinkResynchronises)
{
    std::ofstream(Path()) << "short\n";
    reader_.SetAuditLogPath(Path());
    EXPECT_FALSE(reader_.headRead);
    ASSERT_EQ(truncate(Path().c_str(), 2), 0);
    Run({{'p'}, {'l', "Audit log({path}) head not get, can not check whether rotated."}, {'e'}});
}
