#pragma once

// Included by every test program: GoogleTest and the standard and POSIX headers the tests share.
#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Pipe.h>
#include <Poco/Process.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace TestSupport {

/// A scratch directory removed with everything in it at the end of the scope.
class TempDir {
public:
    /// under: the directory to make it in; TMPDIR (or /tmp) when null.
    explicit TempDir(const char* under = nullptr);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    /// Writes a file (creating parent directories) and returns its path.
    std::string Write(const std::string& relative, const std::string& content, unsigned mode = 0644) const;

private:
    std::string path_;
};

/// The lines of a file, without newlines.
std::vector<std::string> ReadLines(const std::string& path);
/// The whole content of a file ("" when it cannot be read).
std::string ReadFile(const std::string& path);
/// The project's capture fixtures directory, ending in "/".
std::string FixturesDir();
/// Compares text with a golden file (a path inside the source tree). With HW_UPDATE_GOLDEN=1 in
/// the environment the file is rewritten instead; review the difference before committing it.
void ExpectGolden(const std::string& relative, const std::string& text);
/// The rows of a table file (a path inside the source tree): a row a line, its cells separated by
/// "|" and trimmed of blanks; blank lines and lines starting with # skipped.
std::vector<std::vector<std::string>> TableRows(const std::string& relative);
/// One row of a table file as the parameter of a parameterised test.
struct TableRow {
    std::vector<std::string> cells;
    std::string name;  ///< "L<line>_" and the words of its naming cell: a failure names its row
    std::vector<std::vector<std::string>> block;  ///< a block's rows after its marker row
};
/// The rows of a table file, as TableRows reads them, each named by its line and the words of cell
/// nameCell (counted from the end when negative).
std::vector<TableRow> TableParams(const std::string& relative, int nameCell = -1);
/// The blocks of a table file whose rows are steps: a block starts at a row whose first cell is
/// marker and is named by its line and the words of that row's second cell.
std::vector<TableRow> TableBlockParams(const std::string& relative, const std::string& marker);
/// A table row's name, for INSTANTIATE_TEST_SUITE_P.
std::string TableRowName(const testing::TestParamInfo<TableRow>& info);
/// How GoogleTest prints a row: its cells.
void PrintTo(const TableRow& row, std::ostream* out);

/// How many files this process holds open.
size_t OpenFileCount();

/// Checks condition every 20 ms until it holds or the deadline passes; returns its last value.
bool WaitUntil(const std::function<bool()>& condition, int seconds = 20);

/// Items handed over by other threads, and a wait for one that matches.
template <typename T>
class Inbox {
public:
    void Push(T item)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
        changed_.notify_all();
    }
    /// Waits (at most seconds) until an item matches.
    bool WaitFor(const std::function<bool(const T&)>& match, int seconds = 20)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(seconds), [&] { return std::any_of(items_.begin(), items_.end(), match); });
    }
    std::vector<T> Snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<T> items_;
};

/// A Poco channel that keeps every message, for asserting log lines.
class CapturingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override;
    std::vector<Poco::Message> Messages();
    /// The texts of the messages logged so far.
    std::vector<std::string> Texts();
    /// True when a message with exactly this text was logged.
    bool Has(const std::string& text);
    void Clear();

private:
    std::mutex mutex_;
    std::vector<Poco::Message> messages_;
};

/// Routes a logger to a fresh capturing channel at the given level for the life of the object;
/// its channel and level before are put back after.
class LoggerCapture {
public:
    explicit LoggerCapture(Poco::Logger& logger, int level = Poco::Message::PRIO_TRACE);
    ~LoggerCapture();
    LoggerCapture(const LoggerCapture&) = delete;
    LoggerCapture& operator=(const LoggerCapture&) = delete;
    CapturingChannel& channel() { return *channel_; }

private:
    Poco::Logger& logger_;
    Poco::Channel::Ptr previous_;
    int previousLevel_;
    Poco::AutoPtr<CapturingChannel> channel_;
};

/// A program started by a test, with its standard output and error captured.
class Program {
public:
    /// Starts args[0] with args, and assignments (NAME=value) added to the environment.
    explicit Program(const std::vector<std::string>& args, const std::vector<std::string>& assignments = {});
    ~Program();  ///< kills it if it still runs
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    /// Reads output until text appears in standard output (out) or error (!out), within seconds.
    bool WaitFor(const std::string& text, bool out, int seconds = 20);
    /// Sends a signal.
    void Signal(int signal);
    /// Waits (at most seconds) for the exit and reads what is left; the exit status, 256 + the
    /// signal that ended it, or -1 when it still runs.
    int Wait(int seconds = 30);
    int Pid() const { return process_.id(); }
    std::string out;  ///< standard output read so far
    std::string err;  ///< standard error read so far

private:
    void Read(int timeoutMs);
    Poco::Pipe outPipe_;
    Poco::Pipe errPipe_;
    Poco::ProcessHandle process_;
    bool running_ = true;
};

/// An installation directory (HOSTWARDEN_HOME, for the life of the object) whose bin/auditctl
/// records every call: its LD_LIBRARY_PATH once, then each call's arguments as [a][b]... lines.
class FakeInstallation {
public:
    /// auditctl exits with exitCode; a negative one makes it refuse a watch (-w) whose directory
    /// is missing, as the kernel does, and succeed otherwise.
    explicit FakeInstallation(int exitCode = 0, const std::string& printed = "printed-by-auditctl");
    ~FakeInstallation();
    /// The recorded argument lists, one per call.
    std::vector<std::string> Commands() const;
    /// While held, a listing (-l) is recorded at once but answers only when released.
    void HoldListings(bool hold);
    TempDir dir;
};

}  // namespace TestSupport
