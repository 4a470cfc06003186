// Measures the audit task against the real kernel and auditd (needs root; run through
// bench/run-live-bench.sh, which also makes auditd rotate its log every megabyte):
//   latency   kernel event to subscriber, median and 99th percentile, at 100 and 5,000 events/s
//   cpu       the audit task thread's processor share while 100 and 250 execve/s are audited
//   rate      30 s at 2,000 to 20,000 log lines a second while auditd rotates its log by size and
//             by SIGUSR1: the rate reached, events lost by the task, and events the kernel or
//             auditd lost (auditctl -s)
//   filewatch file creation to its notification through the file-watch task, median and 99th
//             percentile over 1,000 creations
#include "AuditMessages.h"
#include "AuditTask.h"
#include "FileAuditWatch.h"
#include "FileWatchAuditTask.h"

#include "framework/Engine.h"
#include "framework/Module.h"

#include <dirent.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr long kMarkerBase = 3000000;  // getpgid() of a pid that does not exist: fails fast

double NowUs()
{
    return std::chrono::duration<double, std::micro>(Clock::now().time_since_epoch()).count();
}

// Receives events: getpgid markers (a0) with their arrival time, and a count of the rest.
class Subscriber : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    Subscriber() : Framework::Task("bench_sub_task", "bench", Framework::TaskCondition::kLoop, 65536) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        const double now = NowUs();
        std::lock_guard<std::mutex> lock(mutex);
        if (!msg.event) {  // a file notification
            const size_t name = msg.result.path.rfind("/f");
            if (name != std::string::npos) {
                arrivals.emplace_back(std::atol(msg.result.path.c_str() + name + 2), now);
            }
        } else if (msg.event->syscall == SYS_getpgid) {
            arrivals.emplace_back(std::stol(msg.event->a0, nullptr, 16) - kMarkerBase, now);
        } else {
            ++others;
        }
        return 0;
    }
    void Reset()
    {
        std::lock_guard<std::mutex> lock(mutex);
        arrivals.clear();
        others = 0;
    }
    size_t Arrived()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return arrivals.size();
    }
    std::mutex mutex;
    std::vector<std::pair<long, double>> arrivals;  // (marker index, arrival time in µs)
    size_t others = 0;
};

class BenchModule : public Framework::Module {
public:
    BenchModule(Engine::AuditTask* audit, Subscriber* sub) : Framework::Module("bench_module"), audit_(audit), sub_(sub) {}
    int Init() override
    {
        return RegisterTask(audit_, true) == 0 && RegisterTask(new Engine::FileWatchAuditTask, true) == 0 &&
                       RegisterTask(sub_, true) == 0
                   ? 0
                   : -1;
    }

private:
    Engine::AuditTask* audit_;
    Subscriber* sub_;
};

// CPU seconds used so far by this process's thread called name.
double ThreadCpuSeconds(const std::string& name)
{
    DIR* dir = opendir("/proc/self/task");
    double seconds = 0;
    while (dirent* entry = readdir(dir)) {
        const std::string base = std::string("/proc/self/task/") + entry->d_name;
        std::string comm;
        std::getline(std::ifstream(base + "/comm"), comm);
        if (comm != name) {
            continue;
        }
        std::string stat;
        std::getline(std::ifstream(base + "/stat"), stat);
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::string skip;
        for (int i = 0; i < 11; ++i) {
            fields >> skip;
        }
        long utime = 0;
        long stime = 0;
        fields >> utime >> stime;
        seconds += static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    closedir(dir);
    return seconds;
}

// Calls fn count times, spread evenly over count / perSecond seconds (calls that fall due
// together go out together, so high rates are not held back by the sleep's granularity).
template <typename Fn>
void Paced(int count, double perSecond, Fn fn)
{
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const auto due = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(i / perSecond));
        if (due > Clock::now()) {
            std::this_thread::sleep_until(due);
        }
        fn(i);
    }
}

void Subscribe(Subscriber& sub, const std::string& tag, const std::string& rule, const std::string& operate = "-a")
{
    auto* msg = new Engine::AuditSyscallCtrlMessage(&sub);
    msg->tag = tag;
    msg->operate = operate;
    msg->rule = rule;
    sub.SendDirectMsg("audit_task", msg);
}

bool WaitUntil(const std::function<bool()>& done, double seconds)
{
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Runs act(i) for count events at perSecond and reports when each arrived (by index) after it.
void Latency(Subscriber& sub, const char* what, const std::function<void(int)>& act, int count = 1000, double perSecond = 100)
{
    sub.Reset();
    std::vector<double> sent(static_cast<size_t>(count));
    Paced(count, perSecond, [&](int i) {
        sent[static_cast<size_t>(i)] = NowUs();
        act(i);
    });
    WaitUntil([&] { return sub.Arrived() >= static_cast<size_t>(count); }, 30);
    std::vector<double> latencies;
    {
        std::lock_guard<std::mutex> lock(sub.mutex);
        for (const auto& [index, at] : sub.arrivals) {
            if (index >= 0 && index < count) {
                latencies.push_back((at - sent[static_cast<size_t>(index)]) / 1000.0);
            }
        }
    }
    std::sort(latencies.begin(), latencies.end());
    if (latencies.empty()) {
        std::printf("%s: nothing arrived\n", what);
        return;
    }
    std::printf("%s: %zu of %d arrived, median %.2f ms, p99 %.2f ms, max %.1f ms (%.0f a second)\n", what,
                latencies.size(), count, latencies[latencies.size() / 2], latencies[latencies.size() * 99 / 100],
                latencies.back(), perSecond);
}

// Creates files in a directory watched through the file-watch task.
void FileWatchLatency(Subscriber& sub)
{
    char pattern[] = "/tmp/hw_bench_fw_XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const auto watch = [&](bool unwatch) {
        _FileNotifyOpt opt;
        opt.flag6 = unwatch;
        sub.SendDirectMsg("filewatch_audit_task", new Engine::AuditFileSystemCtrlMessage(&sub, dir, {Engine::kNotifyCreate}, opt));
    };
    watch(false);
    std::this_thread::sleep_for(std::chrono::seconds(1));  // the audit watch is installed by then
    Latency(sub, "file notification latency", [&](int i) {
        close(open((dir + "/f" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0644));
    });
    watch(true);
    std::system(("rm -rf " + dir).c_str());
}

void CpuShare(Subscriber& sub, double perSecond)
{
    constexpr double kSeconds = 10;
    sub.Reset();
    const double cpu0 = ThreadCpuSeconds("audit_task");
    const auto start = Clock::now();
    Paced(static_cast<int>(perSecond * kSeconds), perSecond, [](int) {
        pid_t child = -1;
        char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
        if (posix_spawn(&child, "/bin/true", nullptr, nullptr, argv, environ) == 0) {
            waitpid(child, nullptr, 0);
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // let the last events drain
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = ThreadCpuSeconds("audit_task") - cpu0;
    std::printf("cpu: %.0f execve/s for %.0f s: audit task thread %.1f%% of one core (%zu events delivered)\n", perSecond,
                kSeconds, 100.0 * cpu / wall, sub.others);
}

// The kernel's count of audit records it could not hand to auditd.
long KernelLost()
{
    long lost = -1;
    FILE* pipe = popen("auditctl -s", "r");
    char line[256];
    while (pipe != nullptr && std::fgets(line, sizeof(line), pipe) != nullptr) {
        std::sscanf(line, "lost %ld", &lost);
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return lost;
}

ino_t LogInode(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Events at a rate for some seconds, each two log lines (SYSCALL, PROCTITLE), while auditd rotates
// its log by size (every megabyte, as the script configures it) and twice by SIGUSR1. Reports the
// rate reached (the kernel makes the caller wait when auditd falls behind), the rotations, the
// events that never arrived, and the records the kernel lost; returns the events lost by us (the
// kernel's losses are not ours).
long Rate(Subscriber& sub, Engine::AuditTask& audit, double linesPerSecond, pid_t auditd, const std::string& logPath,
          double kSeconds = 30)
{
    const double eventsPerSecond = linesPerSecond / 2;
    const int count = static_cast<int>(eventsPerSecond * kSeconds);
    sub.Reset();
    const long lost0 = KernelLost();
    const uint64_t losses0 = audit.Reader().rotationLosses;
    int rotations = 0;
    ino_t inode = LogInode(logPath);
    const auto start = Clock::now();
    Paced(count, eventsPerSecond, [&](int i) {
        if (i == count / 3 || i == 2 * count / 3) {
            kill(auditd, SIGUSR1);
        }
        if (i % 1000 == 0 && LogInode(logPath) != inode) {
            inode = LogInode(logPath);
            ++rotations;
        }
        syscall(SYS_getpgid, kMarkerBase + i);
    });
    const double generated = std::chrono::duration<double>(Clock::now() - start).count();
    WaitUntil([&] { return sub.Arrived() >= static_cast<size_t>(count); }, 60);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const size_t arrived = sub.Arrived();
    std::printf("rate: %6.0f lines/s asked, %6.0f reached over %.1f s, %d rotations: %d of %d events arrived, %d lost; "
                "kernel lost %ld; rotated files lost before read: %llu\n",
                linesPerSecond, 2 * count / generated, generated, rotations, static_cast<int>(arrived), count,
                count - static_cast<int>(std::min<size_t>(arrived, static_cast<size_t>(count))), KernelLost() - lost0,
                static_cast<unsigned long long>(audit.Reader().rotationLosses - losses0));
    const long missing = count - static_cast<long>(std::min<size_t>(arrived, static_cast<size_t>(count)));
    return std::max(0L, missing - (KernelLost() - lost0));
}

pid_t AuditdPid()
{
    char buffer[64] = {0};
    FILE* pipe = popen("pgrep -x auditd", "r");
    if (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        pclose(pipe);
        return static_cast<pid_t>(std::atol(buffer));
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string what = argc > 1 ? argv[1] : "all";
    Framework::Engine engine;
    auto* audit = new Engine::AuditTask;
    auto* sub = new Subscriber;
    if (engine.AddModule(std::make_unique<BenchModule>(audit, sub)) != 0 || engine.StartTasks() != 0 ||
        !audit->AuditEnabled()) {
        std::fprintf(stderr, "audit_live_bench: the audit task cannot run here (root, auditd, HOSTWARDEN_HOME?)\n");
        return 1;
    }
    const std::string self = std::to_string(getpid());
    Subscribe(*sub, "pgid", "exit,always -F arch=b64 -S getpgid -F pid=" + self);
    Subscribe(*sub, "exec", "exit,always -F arch=b64 -S execve -F ppid=" + self);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (what == "all" || what == "latency") {
        const auto marker = [](int i) { syscall(SYS_getpgid, kMarkerBase + i); };
        Latency(*sub, "latency", marker);
        Latency(*sub, "latency", marker, 25000, 5000);
    }
    if (what == "all" || what == "filewatch") {
        FileWatchLatency(*sub);
    }
    if (what == "all" || what == "cpu") {
        CpuShare(*sub, 100);
        CpuShare(*sub, 250);
    }
    if (what == "all" || what == "rate") {
        std::string logPath;
        Engine::GetAuditConfAndStatus probe("/etc/audit/auditd.conf");
        probe.GetAuditLogPath();
        probe.GetAuditLogPath(logPath);
        for (const double rate : {2000.0, 5000.0, 10000.0, 20000.0}) {
            Rate(*sub, *audit, rate, AuditdPid(), logPath);
        }
    }
    if (what == "rotation") {
        // Repeated runs at 20,000 audited calls a second, each with at least two rotations.
        const int runs = argc > 2 ? std::atoi(argv[2]) : 20;
        std::string logPath;
        Engine::GetAuditConfAndStatus probe("/etc/audit/auditd.conf");
        probe.GetAuditLogPath();
        probe.GetAuditLogPath(logPath);
        int lossy = 0;
        for (int run = 1; run <= runs; ++run) {
            std::printf("run %d of %d: ", run, runs);
            lossy += Rate(*sub, *audit, 40000.0, AuditdPid(), logPath, 10) > 0 ? 1 : 0;
        }
        std::printf("rotation: %d of %d runs lost events the kernel did not lose\n", lossy, runs);
    }
    sub->SendDirectMsg("audit_task", new Engine::AuditUnsubscribeMessage(sub));
    engine.StopAll();
    return 0;
}
