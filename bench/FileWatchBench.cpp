// The file-watch engine's inode index on a real tree of 100,000 files:
//   BM_RecordTree         recording the whole tree (lstat and directory reading), time and memory
//                         per entry
//   BM_RecordLinks        memory per entry of 50,000 hard links of one file in a directory whose
//                         paths are some 1.8 KB long (what a user can make under a watch)
//   BM_PathByInode/scan   naming a file by inode and device the way the index is kept, one scan of
//                         every entry in path order
//   BM_PathByInode/index  the same answer through the index by (inode, device)
#include "FileAuditWatch.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kDirs = 100;
constexpr int kFilesPerDir = 1000;

// A scratch tree of kDirs directories of kFilesPerDir empty files, made once, removed at exit.
const std::string& Tree()
{
    static const std::string root = [] {
        const std::string dir = "/tmp/hw_bench_tree_" + std::to_string(getpid());
        mkdir(dir.c_str(), 0755);
        for (int d = 0; d < kDirs; ++d) {
            const std::string sub = dir + "/dir" + std::to_string(d);
            mkdir(sub.c_str(), 0755);
            for (int f = 0; f < kFilesPerDir; ++f) {
                std::FILE* file = std::fopen((sub + "/file" + std::to_string(f)).c_str(), "w");
                std::fclose(file);
            }
        }
        std::atexit([] { std::system(("rm -rf /tmp/hw_bench_tree_" + std::to_string(getpid())).c_str()); });
        return dir;
    }();
    return root;
}

size_t HeapInUse()
{
    return mallinfo2().uordblks;
}

// Records the tree at root again and again: time, memory and entries.
void Record(benchmark::State& state, const std::string& root)
{
    size_t entries = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        const size_t before = HeapInUse();
        Engine::InodeIndex index;
        Engine::FileAuditWatch::RecordInodeInfoRecursive(root, index);
        entries = index.size();
        bytes = HeapInUse() - before;
        benchmark::DoNotOptimize(index);
    }
    state.counters["entries"] = static_cast<double>(entries);
    state.counters["ns_per_entry"] = benchmark::Counter(static_cast<double>(entries) * state.iterations(),
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["bytes_per_entry"] = static_cast<double>(bytes) / static_cast<double>(entries);
}

void BM_RecordTree(benchmark::State& state)
{
    Record(state, Tree());
}
BENCHMARK(BM_RecordTree)->Unit(benchmark::kMillisecond);

// 50,000 hard links to one file, in a directory eight levels of 220-byte names deep.
const std::string& LinkTree()
{
    static const std::string deep = [] {
        std::string dir = "/tmp/hw_bench_links_" + std::to_string(getpid());
        mkdir(dir.c_str(), 0755);
        std::atexit([] { std::system(("rm -rf /tmp/hw_bench_links_" + std::to_string(getpid())).c_str()); });
        for (int level = 0; level < 8; ++level) {
            dir += "/" + std::string(220, static_cast<char>('a' + level));
            mkdir(dir.c_str(), 0755);
        }
        const std::string target = dir + "/target";
        std::fclose(std::fopen(target.c_str(), "w"));
        for (int i = 0; i < 50000; ++i) {
            link(target.c_str(), (dir + "/link-" + std::to_string(i)).c_str());
        }
        return dir;
    }();
    return deep;
}

void BM_RecordLinks(benchmark::State& state)
{
    Record(state, LinkTree());
    state.counters["path_bytes"] = static_cast<double>(LinkTree().size() + 12);
}
BENCHMARK(BM_RecordLinks)->Unit(benchmark::kMillisecond)->Iterations(3);

// The index of the tree, and the (inode, device) of some of its files, picked at random.
struct Recorded {
    Engine::InodeIndex index;
    std::vector<std::pair<uint64_t, uint64_t>> probes;
};

const Recorded& RecordedTree()
{
    static const Recorded& recorded = *[] {
        auto* made = new Recorded;  // kept to the end of the run
        Recorded& r = *made;
        Engine::FileAuditWatch::RecordInodeInfoRecursive(Tree(), r.index);
        std::vector<std::pair<uint64_t, uint64_t>> all;
        for (const auto& [path, info] : r.index.Entries()) {
            all.emplace_back(info.inode, info.dev);
        }
        std::mt19937 random(7);
        for (int i = 0; i < 1024; ++i) {
            r.probes.push_back(all[random() % all.size()]);
        }
        return made;
    }();
    return recorded;
}

void BM_PathByInode(benchmark::State& state)
{
    const Recorded& r = RecordedTree();
    const bool scan = state.range(0) == 0;
    size_t i = 0;
    for (auto _ : state) {
        const auto& [inode, dev] = r.probes[i++ % r.probes.size()];
        std::string path = scan ? r.index.PathOfByScan(inode, dev) : r.index.PathOf(inode, dev);
        benchmark::DoNotOptimize(path);
    }
    state.SetLabel(scan ? "scan in path order" : "index by inode");
    state.counters["entries"] = static_cast<double>(r.index.size());
}
BENCHMARK(BM_PathByInode)->ArgName("index")->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
