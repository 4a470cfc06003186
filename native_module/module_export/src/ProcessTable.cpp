#include "ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace Export {

namespace {

constexpr size_t kStatBytes = 1024;
// More than the kernel lets a program start with (a quarter of an 8 MB stack limit, or 6 MB
// with a larger one), so a command line is read whole before it is cut.
constexpr size_t kMaxCmdlineBytes = 8 * 1024 * 1024;
// Two readings of one start time differ by no more than the rounding of the boot moment.
constexpr uint64_t kBootRoundingMs = 2;

// Up to max bytes of a /proc file; false when it cannot be opened (the process has ended).
bool ReadSmallFile(const std::string& path, size_t max, std::string& text)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    text.clear();
    char buffer[4096];
    while (text.size() < max) {
        const ssize_t n = ::read(fd, buffer, std::min(sizeof(buffer), max - text.size()));
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return true;
}

uint64_t ClockMs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

void CutArgs(std::vector<std::string>& args, size_t maxBytes, uint64_t extraArgs, uint64_t extraBytes)
{
    size_t used = 0;
    size_t kept = 0;
    for (; kept < args.size(); ++kept) {
        if (used + args[kept].size() > maxBytes) {
            break;
        }
        used += args[kept].size();
    }
    if (kept == args.size() && extraArgs == 0 && extraBytes == 0) {
        return;
    }
    uint64_t cutArgs = extraArgs;
    uint64_t cutBytes = extraBytes;
    if (kept < args.size()) {
        std::string& crossing = args[kept];
        size_t keep = maxBytes - used;
        // Back to the start of a UTF-8 character (at most three bytes back, where its lead byte
        // stands), so a text argument stays text; other bytes are cut where the bound falls.
        for (size_t back = 1; back <= 3 && back <= keep && keep < crossing.size() &&
                              (static_cast<unsigned char>(crossing[keep]) & 0xC0) == 0x80;
             ++back) {
            if ((static_cast<unsigned char>(crossing[keep - back]) & 0xC0) == 0xC0) {
                keep -= back;
                break;
            }
        }
        cutBytes += crossing.size() - keep;
        cutArgs += 1;
        for (size_t i = kept + 1; i < args.size(); ++i) {
            cutBytes += args[i].size();
            cutArgs += 1;
        }
        crossing.resize(keep);
        args.resize(keep > 0 ? kept + 1 : kept);
    }
    args.push_back("[hostwarden: cut here, " + std::to_string(cutBytes) + " more bytes of " +
                   std::to_string(cutArgs) + " arguments not shown]");
}

ProcProcessSource::ProcProcessSource(size_t maxArgBytes, std::string proc)
    : maxArgBytes_(maxArgBytes), proc_(std::move(proc)), ticksPerSecond_(sysconf(_SC_CLK_TCK))
{
    if (ticksPerSecond_ <= 0) {
        ticksPerSecond_ = 100;
    }
}

bool ProcProcessSource::ReadStat(int32_t pid, ProcessFacts& facts)
{
    std::string stat;
    if (pid <= 0 || !ReadSmallFile(proc_ + "/" + std::to_string(pid) + "/stat", kStatBytes, stat)) {
        return false;
    }
    // "PID (COMM) STATE PPID ..." where COMM may hold blanks and parentheses itself.
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    facts.name = stat.substr(open + 1, close - open - 1);
    const char* p = stat.c_str() + close + 1;
    // Fields 3 (state) to 22 (start time in ticks since boot).
    uint64_t startTicks = 0;
    for (int field = 3; field <= 22 && *p != '\0'; ++field) {
        while (*p == ' ') {
            ++p;
        }
        char* end = nullptr;
        if (field == 4) {
            facts.ppid = static_cast<int32_t>(std::strtol(p, &end, 10));
        } else if (field == 22) {
            startTicks = std::strtoull(p, &end, 10);
        }
        while (*p != ' ' && *p != '\0') {
            ++p;
        }
    }
    // The boot moment on the wall clock, read now, so that clock adjustments since are followed.
    const uint64_t bootMs = ClockMs(CLOCK_REALTIME) - ClockMs(CLOCK_BOOTTIME);
    facts.startMs = bootMs + startTicks * 1000 / static_cast<uint64_t>(ticksPerSecond_);
    return true;
}

bool ProcProcessSource::StartMs(int32_t pid, uint64_t& startMs)
{
    ProcessFacts facts;
    if (!ReadStat(pid, facts)) {
        return false;
    }
    startMs = facts.startMs;
    return true;
}

bool ProcProcessSource::Read(int32_t pid, ProcessFacts& facts)
{
    if (!ReadStat(pid, facts)) {
        return false;
    }
    const std::string dir = proc_ + "/" + std::to_string(pid);
    char target[4096];
    const ssize_t length = ::readlink((dir + "/exe").c_str(), target, sizeof(target));
    facts.executable = length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
    std::string cmdline;
    facts.args.clear();
    if (ReadSmallFile(dir + "/cmdline", kMaxCmdlineBytes, cmdline)) {
        for (size_t start = 0; start < cmdline.size();) {
            size_t end = cmdline.find('\0', start);
            if (end == std::string::npos) {
                end = cmdline.size();
            }
            facts.args.push_back(cmdline.substr(start, end - start));
            start = end + 1;
        }
        CutArgs(facts.args, maxArgBytes_);
    }
    // The start time again: a pid that changed hands while it was read gives nothing. The boot
    // moment is read anew each time and may round a millisecond apart; start times themselves
    // come in clock ticks (10 ms), so a difference within that rounding is the same start.
    uint64_t again = 0;
    return StartMs(pid, again) && again + kBootRoundingMs >= facts.startMs &&
           again <= facts.startMs + kBootRoundingMs;
}

std::vector<int32_t> ProcProcessSource::Pids()
{
    std::vector<int32_t> pids;
    DIR* dir = ::opendir(proc_.c_str());
    if (dir == nullptr) {
        return pids;
    }
    while (const dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && *end == '\0') {
            pids.push_back(static_cast<int32_t>(pid));
        }
    }
    ::closedir(dir);
    return pids;
}

ProcessTable::ProcessTable(ProcessSource& source, size_t capacity, std::chrono::milliseconds recheck)
    : source_(source), capacity_(capacity), recheck_(recheck) {}

void ProcessTable::Seed()
{
    for (const int32_t pid : source_.Pids()) {
        Entry entry;
        if (source_.Read(pid, entry.facts)) {
            entry.seenMs = entry.facts.startMs;
            Store(pid, std::move(entry));
        }
    }
}

void ProcessTable::Exec(int32_t pid, uint64_t timeMs, ProcessFacts facts)
{
    // The start time is learnt when the process is next asked for: a process alive then that
    // started before the exec is this one (program starts keep the process's start time).
    facts.startMs = 0;
    Entry entry;
    entry.facts = std::move(facts);
    entry.seenMs = timeMs;
    Store(pid, std::move(entry));
}

bool ProcessTable::Store(int32_t pid, Entry entry)
{
    if (entry.seenMs > lastSweepMs_ + kEndedKeptMs) {
        Sweep(entry.seenMs, false);
    }
    if (entries_.size() >= capacity_ && entries_.count(pid) == 0) {
        Sweep(entry.seenMs, true);
        if (entries_.size() >= capacity_) {
            return false;
        }
    }
    entries_[pid] = std::move(entry);
    return true;
}

void ProcessTable::Sweep(uint64_t nowMs, bool full)
{
    lastSweepMs_ = nowMs;
    for (auto it = entries_.begin(); it != entries_.end();) {
        uint64_t start = 0;
        const bool alive = source_.StartMs(it->first, start) &&
                           (it->second.facts.startMs == 0 || start == it->second.facts.startMs);
        const bool old = it->second.seenMs + kEndedKeptMs < nowMs;
        it = !alive && (full || old) ? entries_.erase(it) : std::next(it);
    }
}

const ProcessFacts* ProcessTable::Find(int32_t pid, uint64_t timeMs)
{
    if (pid <= 0) {
        return nullptr;
    }
    const auto now = std::chrono::steady_clock::now();
    const auto it = entries_.find(pid);
    if (it != entries_.end() && it->second.facts.startMs != 0 && now - it->second.checked < recheck_ &&
        it->second.facts.startMs <= timeMs + kClockSlackMs) {
        it->second.seenMs = std::max(it->second.seenMs, timeMs);
        return &it->second.facts;
    }
    uint64_t liveStart = 0;
    const bool alive = source_.StartMs(pid, liveStart);
    if (it != entries_.end()) {
        Entry& entry = it->second;
        const uint64_t known = entry.facts.startMs;
        if (!alive) {
            // Ended: what the table learnt of it, unless it is known to have started later.
            if (known == 0 || known <= timeMs + kClockSlackMs) {
                entry.seenMs = std::max(entry.seenMs, timeMs);
                return &entry.facts;
            }
            return nullptr;
        }
        if (known == liveStart || (known == 0 && liveStart <= entry.seenMs + kClockSlackMs)) {
            entry.facts.startMs = liveStart;
            entry.checked = now;
            if (liveStart > timeMs + kClockSlackMs) {
                return nullptr;  // the process now holding the pid started after the moment asked
            }
            entry.seenMs = std::max(entry.seenMs, timeMs);
            return &entry.facts;
        }
        entries_.erase(it);  // the pid has changed hands since
    }
    if (!alive) {
        return nullptr;
    }
    Entry entry;
    // Read checks the start time again after reading, so a process that took the pid meanwhile
    // is refused here too.
    if (!source_.Read(pid, entry.facts) || entry.facts.startMs > timeMs + kClockSlackMs) {
        return nullptr;
    }
    entry.seenMs = timeMs;
    entry.checked = now;
    if (!Store(pid, entry)) {
        overflow_ = std::move(entry.facts);  // a full table still answers
        return &overflow_;
    }
    return &entries_[pid].facts;
}

}  // namespace Export
