// Container lookups. BM_DescribeMounts: a container's mount table placed on the host's, at
// 10,000 and 100,000 mounts. BM_NewProcesses: 20,000 new processes looked up once each.
// A lookup of the container a process runs in, as the audit module makes one for each PATH record
// of an event: answered from the provider's cache (one read of /proc/PID/stat to check that the
// process is still the one the cache knew), and uncached (its cgroup read and, for a container,
// its mountinfo and the host's read and parsed). A process of the host is this benchmark itself,
// in the real /proc; a container's is given by the texts captured from a runc container, in a /proc
// of the benchmark's own on tmpfs.
#include "ContainerCollectTask.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

const std::string kFixtures = std::string(HW_SOURCE_DIR) + "/native_module/module_container/tests/fixtures/";

// A /proc holding one container process, pid 4242, with the captured texts.
std::unique_ptr<Container::ProcSource> ContainerProc()
{
    static const std::string root = [] {
        const std::string dir = "/dev/shm/hw_container_bench_" + std::to_string(getpid());
        std::filesystem::create_directories(dir + "/4242");
        std::filesystem::create_directories(dir + "/self");
        std::filesystem::copy_file(kFixtures + "runc-docker-cgroup.txt", dir + "/4242/cgroup");
        std::filesystem::copy_file(kFixtures + "runc-docker-mountinfo.txt", dir + "/4242/mountinfo");
        std::filesystem::copy_file(kFixtures + "host-mountinfo.txt", dir + "/self/mountinfo");
        std::ofstream(dir + "/4242/stat") << "4242 (sleep) S 1 4242 4242 0 -1 4194560 633 0 0 0 0 0 0 0 20 0 1 0 811047 2322432 332\n";
        return dir;
    }();
    auto source = std::make_unique<Container::ProcSource>();
    source->root = root;
    return source;
}

void Lookup(benchmark::State& state, std::unique_ptr<Container::ProcSource> (*proc)(), int pid, bool cached, bool expected)
{
    auto task = std::make_unique<Container::ContainerCollectTask>(proc());
    std::shared_ptr<Framework::ContainerInfo> info;
    for (auto _ : state) {
        if (!cached) {
            state.PauseTiming();
            task = std::make_unique<Container::ContainerCollectTask>(proc());
            state.ResumeTiming();
        }
        if (task->GetContainerInfoByPid(pid, info) != expected) {
            state.SkipWithError("unexpected answer");
            break;
        }
    }
}

std::unique_ptr<Container::ProcSource> RealProc()
{
    return std::make_unique<Container::ProcSource>();
}

void BM_HostProcessCached(benchmark::State& state) { Lookup(state, RealProc, getpid(), true, false); }
void BM_HostProcessUncached(benchmark::State& state) { Lookup(state, RealProc, getpid(), false, false); }
void BM_ContainerProcessCached(benchmark::State& state) { Lookup(state, ContainerProc, 4242, true, true); }
void BM_ContainerProcessUncached(benchmark::State& state) { Lookup(state, ContainerProc, 4242, false, true); }

// Mount tables of n bind mounts of one file system: the host's at /mnt/dN, a container's of
// their subdirectories at /c/dN (what a rootless user namespace can make in any number).
void BM_DescribeMounts(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    std::vector<Container::MountEntry> host;
    std::vector<Container::MountEntry> inside;
    host.push_back(Container::MountEntry{"8:1", "/", "/", "rw", "ext4", "/dev/sda1"});
    inside.push_back(Container::MountEntry{"0:99", "/", "/", "rw", "overlay", "overlay"});
    for (int i = 0; i < n; ++i) {
        const std::string d = "d" + std::to_string(i);
        host.push_back(Container::MountEntry{"8:1", "/data/" + d, "/mnt/" + d, "rw", "ext4", "/dev/sda1"});
        inside.push_back(Container::MountEntry{"8:1", "/data/" + d + "/sub", "/c/" + d, "rw", "ext4", "/dev/sda1"});
    }
    for (auto _ : state) {
        Framework::ContainerInfo info;
        Container::DescribeMounts(inside, host, "/proc/1/root", info);
        if (info.mounts.size() != static_cast<size_t>(n) || info.mounts[0].source != "/mnt/d0/sub") {
            state.SkipWithError("unexpected mounts");
            break;
        }
    }
    state.counters["ns_per_mount"] = benchmark::Counter(static_cast<double>(n) * state.iterations(),
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A /proc in memory of 20,000 processes of the host, each looked up once, as a burst of new
// processes would be: every lookup a miss, the cache at its bound for most of them.
struct ManyProcesses : Container::ProcSource {
    std::string Read(const std::string& relative) const override
    {
        if (relative.find("/cgroup") != std::string::npos) {
            return "0::/user.slice/user-1000.slice/session-1.scope\n";
        }
        return relative.substr(0, relative.find('/')) + " (sh) S 1 1 1 0 -1 4194560 633 0 0 0 0 0 0 0 20 0 1 0 811047 2322432 332\n";
    }
    unsigned long ProcessInode(int pid) const override { return static_cast<unsigned long>(pid) * 7 + 1; }
};

void BM_NewProcesses(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Container::ContainerCollectTask task(std::make_unique<ManyProcesses>(), std::chrono::milliseconds(0));
        std::shared_ptr<Framework::ContainerInfo> info;
        for (int pid = 1; pid <= n; ++pid) {
            benchmark::DoNotOptimize(task.GetContainerInfoByPid(pid, info));
        }
    }
    state.counters["ns_per_lookup"] = benchmark::Counter(static_cast<double>(n) * state.iterations(),
                                                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace

BENCHMARK(BM_DescribeMounts)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NewProcesses)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HostProcessCached);
BENCHMARK(BM_HostProcessUncached);
BENCHMARK(BM_ContainerProcessCached);
BENCHMARK(BM_ContainerProcessUncached);

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all("/dev/shm/hw_container_bench_" + std::to_string(getpid()));
    return 0;
}
