// The log reader against real files, for every way a log changes under it. Each test says which
// lines arrive and which are lost by design.
#include "AuditLog.h"
#include "ReadAuditLog.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

using namespace Engine;

namespace {

// Records what the reader hands over instead of assembling it.
class RecordingLog : public AuditLog {
public:
    RecordingLog() : AuditLog(nullptr, nullptr) {}
    void HandleOneLineLog(const std::string& line) override { lines.push_back(line); }
    void HandleNoEofScenarios() override { ++idlePolls; }
    std::vector<std::string> Take()
    {
        std::vector<std::string> taken;
        taken.swap(lines);
        return taken;
    }
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
    void Append(const std::string& path, const std::vector<std::string>& lines, bool lastNewline = true)
    {
        std::ofstream out(path, std::ios::app);
        for (size_t i = 0; i < lines.size(); ++i) {
            out << lines[i];
            if (i + 1 < lines.size() || lastNewline) {
                out << "\n";
            }
        }
    }
    void Append(const std::vector<std::string>& lines) { Append(Path(), lines); }
    // auditd's rotation: the log moves to .1 and a new one starts.
    void Rotate()
    {
        std::rename((Path() + ".1").c_str(), (Path() + ".2").c_str());
        ASSERT_EQ(std::rename(Path().c_str(), (Path() + ".1").c_str()), 0);
        std::ofstream(Path(), std::ios::trunc).flush();
    }
    // Follows a log that already holds lines (as auditd's does), so its 64-byte head is known.
    void Start()
    {
        Append(Records("before", 1, 3));
        reader_.SetAuditLogPath(Path());
    }
    std::vector<std::string> Poll()
    {
        reader_.ReadOnceLog(log_);
        return log_.Take();
    }

    TestSupport::TempDir dir_;
    ReadAuditLog reader_;
    RecordingLog log_;
};

}  // namespace

TEST_F(Reader, StartsAtTheEndAndDeliversNewLinesInOrder)
{
    Append(Records("a", 1, 5));  // already there: never delivered
    Start();
    EXPECT_EQ(reader_.position, static_cast<int64_t>(5 * (Record("a", 1).size() + 1) + 3 * (Record("before", 1).size() + 1)));
    EXPECT_TRUE(reader_.headRead);
    EXPECT_TRUE(Poll().empty());
    EXPECT_EQ(log_.idlePolls, 1) << "a poll without new data completes a pending event";
    Append(Records("a", 6, 8));
    EXPECT_EQ(Poll(), Records("a", 6, 8));
    EXPECT_TRUE(Poll().empty());
    EXPECT_EQ(log_.idlePolls, 2);
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

TEST_F(Reader, AuditdRotationAfterTheOldFileWasReadContinuesInTheNewFileAtOnce)
{
    Start();
    Append(Records("old", 1, 3));
    EXPECT_EQ(Poll().size(), 3U);
    Rotate();
    // Just after the rotation the new file is too short for a head: the reader waits (-1) and
    // resynchronises at the next poll.
    EXPECT_TRUE(Poll().empty());
    EXPECT_EQ(reader_.position, -1);
    Start();
    Append(Records("old", 4, 6));
    EXPECT_EQ(Poll().size(), 3U);
    Rotate();
    Append(Records("new", 1, 2));
    // The new file is shorter than our position in the old one: rotation is noticed and the new
    // file is read from its start in the same poll.
    TestSupport::LogCapture capture(Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(Poll(), Records("new", 1, 2));
    EXPECT_TRUE(capture.channel().Has("Audit log(" + Path() + ") maybe rotated."));
    EXPECT_TRUE(capture.channel().Has("Read audit log(" + Path() + ") head(" + (Record("new", 1) + "\n" + Record("new", 2)).substr(0, 64) + ") success."));
    Append(Records("new", 3, 3));
    EXPECT_EQ(Poll(), Records("new", 3, 3));
}

TEST_F(Reader, RotationWithUnreadLinesFinishesTheOldFileFirst)
{
    Start();
    Append(Records("old", 1, 2));
    EXPECT_EQ(Poll().size(), 2U);
    Append(Records("old", 3, 700));  // unread when the log rotates
    Rotate();
    Append(Records("new", 1, 2));
    EXPECT_EQ(Poll(), Records("old", 3, 503)) << "at most 501 lines of the old file; old 504 to 700 are lost";
    EXPECT_EQ(Poll(), Records("new", 1, 2));
}

TEST_F(Reader, AnUnreadablePredecessorHeadSkipsToTheEndOfTheNewFile)
{
    Start();
    Append(Records("old", 1, 4));
    EXPECT_EQ(Poll().size(), 4U);
    Rotate();
    std::ofstream(Path() + ".1", std::ios::trunc) << "short\n";  // no 64-byte head to compare
    Append(Records("new", 1, 2));
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    EXPECT_TRUE(Poll().empty());
    EXPECT_TRUE(capture.channel().Has("Get audit log(" + Path() + ".1) head failed."));
    EXPECT_EQ(reader_.position, static_cast<int64_t>(2 * (Record("new", 1).size() + 1)));
}

TEST_F(Reader, RotationTwiceBetweenPollsLosesWhatTheReaderNeverSaw)
{
    Start();
    Append(Records("first", 1, 5));
    EXPECT_EQ(Poll().size(), 5U);
    Append(Records("first", 6, 7));  // lost: in a file that is now .2
    Rotate();
    Append(Records("second", 1, 4));  // lost: .1 is not the file we were reading
    Rotate();
    Append(Records("third", 1, 2));  // lost: skipped, reading goes on at the end
    EXPECT_TRUE(Poll().empty());
    Append(Records("third", 3, 3));
    EXPECT_EQ(Poll(), Records("third", 3, 3));
}

TEST_F(Reader, CopyAndTruncateRotationLosesNothingWhenTheCopyIsComplete)
{
    Start();
    Append(Records("log", 1, 3));
    EXPECT_EQ(Poll().size(), 3U);
    Append(Records("log", 4, 6));  // unread when logrotate copies and truncates
    std::ifstream src(Path());
    std::ofstream(Path() + ".1") << src.rdbuf();
    std::ofstream(Path(), std::ios::trunc).flush();
    Append(Records("log", 7, 8));
    EXPECT_EQ(Poll(), Records("log", 4, 6)) << "the copy has the same head: it is finished first";
    EXPECT_EQ(Poll(), Records("log", 7, 8));
}

TEST_F(Reader, TruncationInPlaceSkipsToTheNewEnd)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_WARNING);
    Start();
    Append(Records("log", 1, 10));
    EXPECT_EQ(Poll().size(), 10U);
    // Cut the file back to its first four lines: same head, smaller size.
    const long keep = static_cast<long>(4 * (Record("before", 1).size() + 1));
    ASSERT_EQ(truncate(Path().c_str(), keep), 0);
    EXPECT_TRUE(Poll().empty());
    EXPECT_TRUE(capture.channel().Has("Audit log(" + Path() + ") size changed smaller, but not rotated."));
    EXPECT_EQ(reader_.position, keep);
    Append(Records("log", 11, 11));
    EXPECT_EQ(Poll(), Records("log", 11, 11));
}

TEST_F(Reader, DeleteAndRecreateSkipsWhatTheNewFileAlreadyHolds)
{
    Start();
    Append(Records("old", 1, 10));
    EXPECT_EQ(Poll().size(), 10U);
    std::remove(Path().c_str());
    EXPECT_TRUE(Poll().empty());  // missing: counted, not reported
    EXPECT_EQ(reader_.sizeErrorCount, 1);
    Append(Records("new", 1, 2));  // lost: no predecessor to tell us where the new file began
    EXPECT_TRUE(Poll().empty());
    Append(Records("new", 3, 3));
    EXPECT_EQ(Poll(), Records("new", 3, 3));
}

TEST_F(Reader, AMissingFileIsReportedOnceInAThousandPolls)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    Start();
    std::remove(Path().c_str());
    for (int i = 0; i < 999; ++i) {
        Poll();
    }
    EXPECT_TRUE(capture.channel().Texts().empty());
    Poll();
    EXPECT_EQ(capture.channel().Texts(), std::vector<std::string>{"Get audit log size failed, errno(2)."});
    EXPECT_EQ(reader_.sizeErrorCount, 0);
    Append(Records("back", 1, 2));  // its content when it comes back is skipped: it is not ours to read
    EXPECT_TRUE(Poll().empty());
    Append(Records("back", 3, 3));
    EXPECT_EQ(Poll(), Records("back", 3, 3));
}

TEST_F(Reader, AMissingFileAtStartIsFollowedFromItsEndOnceItExists)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
    reader_.SetAuditLogPath(Path());
    EXPECT_TRUE(capture.channel().Has("Get audit log size and head failed, errno(2)."));
    EXPECT_EQ(reader_.position, -1);
    EXPECT_TRUE(Poll().empty());
    Append(Records("late", 1, 2));  // there before the reader finds the file: skipped
    EXPECT_TRUE(Poll().empty());
    Append(Records("late", 3, 3));
    EXPECT_EQ(Poll(), Records("late", 3, 3));
    reader_.Clear();
    EXPECT_EQ(reader_.position, -1);
    EXPECT_TRUE(reader_.logPath.empty());
    EXPECT_FALSE(reader_.headRead);
}

TEST_F(Reader, ALastLineWithoutNewlineIsDeliveredThenTheReaderResynchronises)
{
    Start();
    Append(Path(), {Record("log", 1), "partial"}, false);
    EXPECT_EQ(Poll(), (std::vector<std::string>{Record("log", 1), "partial"}));
    EXPECT_EQ(reader_.position, -1) << "the stream reports no offset at end of file";
    Append({"-rest", Record("log", 2)});  // lost: the reader jumps to the end
    EXPECT_TRUE(Poll().empty());
    Append({Record("log", 3)});
    EXPECT_EQ(Poll(), Records("log", 3, 3));
}

TEST_F(Reader, AShortFileHasNoHeadSoAShrinkResynchronises)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
    std::ofstream(Path()) << "short\n";
    reader_.SetAuditLogPath(Path());
    EXPECT_FALSE(reader_.headRead);
    ASSERT_EQ(truncate(Path().c_str(), 2), 0);
    EXPECT_TRUE(Poll().empty());
    EXPECT_TRUE(capture.channel().Has("Audit log(" + Path() + ") head not get, can not check whether rotated."));
    EXPECT_EQ(reader_.position, 2);
}

TEST_F(Reader, LinesLongerThan64KiBArriveWhole)
{
    Start();
    const std::string huge = "type=EXECVE msg=audit(1.000:1): a0=" + std::string(70000, 'x');
    Append({huge, Record("log", 1)});
    const std::vector<std::string> got = Poll();
    ASSERT_EQ(got.size(), 2U);
    EXPECT_EQ(got[0], huge);
    EXPECT_EQ(got[1], Record("log", 1));
}
