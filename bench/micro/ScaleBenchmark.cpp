// A tree of a million items: what each costs in memory, and what it takes to find one.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/micro/MemoryEngine.h"
#include "bench/micro/Require.h"
#include "fshelper/OmbraFileSystem.h"

namespace ombra {
namespace {

size_t allocatedBytes() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

// Everything listed, as after `find` over the whole volume.
class ListedTree {
 public:
  ListedTree(size_t folders, size_t files) : iFolders(folders), iFiles(files) {
    iFileSystem.setConnectionPool(memoryPool(folders, files));
    NSErrorRef error;
    require(iFileSystem.preflight(&error), "the file system does not connect");
    const size_t before = allocatedBytes();
    require(iFileSystem.contentsOfDirectoryAtPath("/", &error).has_value(), "the root cannot be listed");
    for (size_t folder = 0; folder < folders; ++folder)
      require(iFileSystem.contentsOfDirectoryAtPath(fmt::format("/folder{:05}", folder), &error).has_value(),
              "a folder cannot be listed");
    iBytes = allocatedBytes() - before;
  }
  size_t count() const { return iFolders * (iFiles + 1); }
  double bytesPerNode() const { return static_cast<double>(iBytes) / static_cast<double>(count()); }
  OmbraFileSystem& fileSystem() { return iFileSystem; }
  // Paths all over the tree, in no order.
  std::vector<std::string> somePaths(size_t count) const {
    std::mt19937_64 random(1);
    std::vector<std::string> paths;
    for (size_t i = 0; i < count; ++i)
      paths.push_back(fmt::format("/folder{:05}/file{:05}", random() % iFolders, random() % iFiles));
    return paths;
  }

 private:
  const size_t iFolders, iFiles;
  OmbraFileSystem iFileSystem;
  size_t iBytes = 0;
};

// One of a thousand paths, known since they are asked for again and again: the tree's size must not show.
void lookUpInTreeOf(benchmark::State& state) {
  ListedTree tree(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  const std::vector<std::string> paths = tree.somePaths(1000);
  size_t next = 0;
  for ([[maybe_unused]] auto _ : state) {
    const auto node = tree.fileSystem().nodeForPath(paths[next]);
    require(node != nullptr, "a path is not found");
    benchmark::DoNotOptimize(node.get());
    next = (next + 1) % paths.size();
  }
  state.counters["nodes"] = static_cast<double>(tree.count());
  state.counters["bytesPerNode"] = tree.bytesPerNode();
}
BENCHMARK(lookUpInTreeOf)->Args({10, 100})->Args({100, 100})->Args({1000, 1000})->Args({10, 100000});

}  // namespace
}  // namespace ombra
