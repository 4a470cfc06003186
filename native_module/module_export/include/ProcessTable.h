#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Export {

/// What the agent knows of one process.
struct ProcessFacts {
    int32_t ppid = -1;
    std::string executable;         ///< the program file
    std::string name;               ///< the kernel's command name (comm)
    std::vector<std::string> args;  ///< the argument list, cut at the table's size bound
    uint64_t startMs = 0;           ///< start time, milliseconds since the epoch; 0 when unknown
};

/// Cuts args to at most maxBytes of text: the argument that crosses the bound is shortened (at
/// a character boundary) and a marker is appended saying how much was left out, with extraArgs
/// and extraBytes left out before the call.
void CutArgs(std::vector<std::string>& args, size_t maxBytes, uint64_t extraArgs = 0, uint64_t extraBytes = 0);

/// Where the table learns of live processes (/proc; tests give their own).
class ProcessSource {
public:
    virtual ~ProcessSource() = default;
    /// The start time of the live process pid; false when there is none.
    virtual bool StartMs(int32_t pid, uint64_t& startMs) = 0;
    /// Everything of the live process pid; false when there is none.
    virtual bool Read(int32_t pid, ProcessFacts& facts) = 0;
    /// The pids of every live process.
    virtual std::vector<int32_t> Pids() = 0;
};

/// The processes of /proc. Argument lists are read up to maxArgBytes.
class ProcProcessSource : public ProcessSource {
public:
    explicit ProcProcessSource(size_t maxArgBytes, std::string proc = "/proc");
    bool StartMs(int32_t pid, uint64_t& startMs) override;
    bool Read(int32_t pid, ProcessFacts& facts) override;
    std::vector<int32_t> Pids() override;

private:
    // ppid, comm and start time of /proc/PID/stat.
    bool ReadStat(int32_t pid, ProcessFacts& facts);

    size_t maxArgBytes_;
    std::string proc_;
    long ticksPerSecond_;
};

/// The processes the agent has seen: seeded from the live ones, updated by every program start
/// the agent decodes, and asked of the live processes when it does not know a pid. A process is
/// only ever given for a time at which it lived: a pid that a newer process has taken since is
/// never taken for the old one, and a pid neither known nor alive gives nothing.
class ProcessTable {
public:
    /// At most capacity processes are kept. A live process found again within recheck of its
    /// last check is taken as the same one: the kernel hands out pids in turn, so a pid comes
    /// back only after every other free pid has been used, which takes far longer.
    explicit ProcessTable(ProcessSource& source, size_t capacity = 65536,
                          std::chrono::milliseconds recheck = std::chrono::milliseconds(100));

    /// Learns every live process.
    void Seed();
    /// pid started a program at timeMs (facts without startMs; the table finds it).
    void Exec(int32_t pid, uint64_t timeMs, ProcessFacts facts);
    /// The process that had pid at timeMs; null when the table cannot say. Valid until the
    /// table's next change.
    const ProcessFacts* Find(int32_t pid, uint64_t timeMs);

    size_t size() const { return entries_.size(); }

    /// How far a start time read from the kernel may lie after a moment it was before (the
    /// kernel counts starts in ticks; the two clocks meet only to this precision).
    static constexpr uint64_t kClockSlackMs = 20;
    /// How long a process that has ended stays known, for its children's events still to come.
    static constexpr uint64_t kEndedKeptMs = 60000;

private:
    struct Entry {
        ProcessFacts facts;
        uint64_t seenMs = 0;  // the event time it was last learnt or used at
        std::chrono::steady_clock::time_point checked;  // when it was last found alive with its start time
    };
    bool Store(int32_t pid, Entry entry);
    // Forgets processes that have ended more than kEndedKeptMs before nowMs (all ended ones when
    // the table is full).
    void Sweep(uint64_t nowMs, bool full);

    ProcessSource& source_;
    size_t capacity_;
    std::chrono::milliseconds recheck_;
    std::unordered_map<int32_t, Entry> entries_;
    uint64_t lastSweepMs_ = 0;
    ProcessFacts overflow_;  // the answer of a Find the full table could not keep
};

}  // namespace Export
