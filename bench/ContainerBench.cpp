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

}  // namespace

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
