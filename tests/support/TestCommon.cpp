#include "TestCommon.h"

#include <Poco/StringTokenizer.h>

#include <poll.h>

#include <cctype>

namespace TestSupport {

TempDir::TempDir(const char* under)
{
    // Under TMPDIR when set, so a runner can sweep what a killed test could not remove.
    const char* tmp = std::getenv("TMPDIR");
    const char* base = under != nullptr ? under : tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    std::string pattern = std::string(base) + "/hw_test_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed in " + pattern);
    }
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& relative, const std::string& content, unsigned mode) const
{
    const std::string file = path_ + "/" + relative;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::trunc) << content;
    chmod(file.c_str(), mode);
    return file;
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string FixturesDir()
{
    return std::string(HW_SOURCE_DIR) + "/tests/fixtures/";
}

std::vector<std::vector<std::string>> TableRows(const std::string& relative)
{
    std::vector<std::vector<std::string>> rows;
    for (const std::string& line : ReadLines(std::string(HW_SOURCE_DIR) + "/" + relative)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const Poco::StringTokenizer cells(line, "|", Poco::StringTokenizer::TOK_TRIM);
        rows.emplace_back(cells.begin(), cells.end());
    }
    EXPECT_FALSE(rows.empty()) << relative << " holds no rows";
    return rows;
}

namespace {

// "L<line>" and the words of text run together, each capitalised: a valid test name.
std::string RowName(size_t line, const std::string& words)
{
    std::string name;
    bool upper = true;
    for (const char c : words) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
            upper = true;
        } else if (name.size() < 48) {
            name += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
            upper = false;
        }
    }
    return "L" + std::to_string(line) + (name.empty() ? "" : "_" + name);
}

// The rows of a table file with their line numbers.
std::vector<std::pair<size_t, std::vector<std::string>>> NumberedRows(const std::string& relative)
{
    std::vector<std::pair<size_t, std::vector<std::string>>> rows;
    size_t number = 0;
    for (const std::string& line : ReadLines(std::string(HW_SOURCE_DIR) + "/" + relative)) {
        ++number;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const Poco::StringTokenizer cells(line, "|", Poco::StringTokenizer::TOK_TRIM);
        rows.emplace_back(number, std::vector<std::string>(cells.begin(), cells.end()));
    }
    return rows;
}

// Reported by the suite: a table that went missing must not pass as an empty one.
std::vector<TableRow> NotEmpty(std::vector<TableRow> rows)
{
    if (rows.empty()) {
        rows.push_back(TableRow{{}, "TheTableHoldsNoRows", {}});
    }
    return rows;
}

}  // namespace

std::vector<TableRow> TableParams(const std::string& relative, int nameCell)
{
    std::vector<TableRow> rows;
    for (auto& [number, cells] : NumberedRows(relative)) {
        const int at = nameCell < 0 ? static_cast<int>(cells.size()) + nameCell : nameCell;
        const std::string words = at >= 0 && at < static_cast<int>(cells.size()) ? cells[at] : "";
        rows.push_back(TableRow{std::move(cells), RowName(number, words), {}});
    }
    return NotEmpty(std::move(rows));
}

std::vector<TableRow> TableBlockParams(const std::string& relative, const std::string& marker)
{
    std::vector<TableRow> blocks;
    for (auto& [number, cells] : NumberedRows(relative)) {
        if (!cells.empty() && cells[0] == marker) {
            const std::string words = cells.size() > 1 ? cells[1] : "";
            blocks.push_back(TableRow{std::move(cells), RowName(number, words), {}});
        } else if (!blocks.empty()) {
            blocks.back().block.push_back(std::move(cells));
        } else {
            ADD_FAILURE() << relative << ":" << number << ": a row before the first " << marker;
        }
    }
    return NotEmpty(std::move(blocks));
}

std::string TableRowName(const testing::TestParamInfo<TableRow>& info)
{
    return info.param.name;
}

void PrintTo(const TableRow& row, std::ostream* out)
{
    for (size_t i = 0; i < row.cells.size(); ++i) {
        *out << (i == 0 ? "" : " | ") << row.cells[i];
    }
}

void ExpectGolden(const std::string& relative, const std::string& text)
{
    const std::string path = std::string(HW_SOURCE_DIR) + "/" + relative;
    if (std::getenv("HW_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path, std::ios::trunc) << text;
    }
    EXPECT_EQ(ReadFile(path), text) << relative << " differs (HW_UPDATE_GOLDEN=1 rewrites it)";
}

size_t OpenFileCount()
{
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

bool WaitUntil(const std::function<bool()>& condition, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // polling a condition, with a deadline
    }
    return true;
}

namespace {

Poco::Process::Env Assignments(const std::vector<std::string>& assignments)
{
    Poco::Process::Env env;
    for (const std::string& assignment : assignments) {
        env[assignment.substr(0, assignment.find('='))] = assignment.substr(assignment.find('=') + 1);
    }
    return env;
}

}  // namespace

Program::Program(const std::vector<std::string>& args, const std::vector<std::string>& assignments)
    : process_(Poco::Process::launch(args[0], {args.begin() + 1, args.end()}, nullptr, &outPipe_, &errPipe_, Assignments(assignments)))
{
}

Program::~Program()
{
    if (running_) {
        kill(process_.id(), SIGKILL);
        process_.wait();
    }
}

void Program::Read(int timeoutMs)
{
    pollfd fds[2] = {{outPipe_.readHandle(), POLLIN, 0}, {errPipe_.readHandle(), POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) {
        return;
    }
    char buffer[4096];
    for (int i = 0; i < 2; ++i) {
        if ((fds[i].revents & (POLLIN | POLLHUP)) != 0) {
            const int got = (i == 0 ? outPipe_ : errPipe_).readBytes(buffer, sizeof(buffer));
            (i == 0 ? out : err).append(buffer, static_cast<size_t>(std::max(got, 0)));
        }
    }
}

bool Program::WaitFor(const std::string& text, bool inOut, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while ((inOut ? out : err).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        Read(100);
    }
    return true;
}

void Program::Signal(int signal)
{
    kill(process_.id(), signal);
}

int Program::Wait(int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = -1;
    while ((status = process_.tryWait()) == -1) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        Read(50);
    }
    running_ = false;
    for (int i = 0; i < 20; ++i) {
        Read(0);
    }
    return status;
}

void CapturingChannel::log(const Poco::Message& msg)
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.push_back(msg);
}

std::vector<Poco::Message> CapturingChannel::Messages()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::vector<std::string> CapturingChannel::Texts()
{
    std::vector<std::string> texts;
    for (const Poco::Message& msg : Messages()) {
        texts.push_back(msg.getText());
    }
    return texts;
}

bool CapturingChannel::Has(const std::string& text)
{
    const std::vector<std::string> texts = Texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

void CapturingChannel::Clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
}

LoggerCapture::LoggerCapture(Poco::Logger& logger, int level)
    : logger_(logger), previous_(logger.getChannel()), previousLevel_(logger.getLevel()), channel_(new CapturingChannel)
{
    logger_.setChannel(channel_);
    logger_.setLevel(level);
}

LoggerCapture::~LoggerCapture()
{
    logger_.setChannel(previous_);
    logger_.setLevel(previousLevel_);
}

FakeInstallation::FakeInstallation(int exitCode, const std::string& printed)
{
    dir.Write("bin/auditctl",
              "#!/bin/sh\n"
              "log=\"$(dirname \"$0\")/../calls\"\n"
              "[ -f \"$log\" ] || printf '%s\\n' \"$LD_LIBRARY_PATH\" > \"$log\"\n"
              "for a in \"$@\"; do printf '[%s]' \"$a\" >> \"$log\"; done\n"
              "printf '\\n' >> \"$log\"\n"
              // A listing waits (at most 20 s) while the test holds listings.
              "n=0; while [ \"$1\" = -l ] && [ -e \"$(dirname \"$0\")/../hold\" ] && [ $n -lt 400 ]; do sleep 0.05; n=$((n+1)); done\n"
              "echo '" + printed + "'\n" +
                  // Like the kernel, a watch whose directory is missing is refused.
                  (exitCode < 0 ? "[ \"$1\" != -w ] || [ -d \"$(dirname \"$2\")\" ] || exit 1\nexit 0\n"
                                : "exit " + std::to_string(exitCode) + "\n"),
              0755);
    setenv("HOSTWARDEN_HOME", dir.path().c_str(), 1);
}

FakeInstallation::~FakeInstallation()
{
    unsetenv("HOSTWARDEN_HOME");
}

void FakeInstallation::HoldListings(bool hold)
{
    if (hold) {
        dir.Write("hold", "");
    } else {
        std::remove((dir.path() + "/hold").c_str());
    }
}

std::vector<std::string> FakeInstallation::Commands() const
{
    std::vector<std::string> commands = ReadLines(dir.path() + "/calls");
    if (!commands.empty()) {
        commands.erase(commands.begin());  // the library path
    }
    return commands;
}

}  // namespace TestSupport
