// The tree of nodes: from a path to its node, and a listing into the tree.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/micro/MemoryEngine.h"
#include "bench/micro/Require.h"
#include "fshelper/OmbraFileSystem.h"

namespace ombra {
namespace {

class MountedTree {
 public:
  MountedTree(size_t folders, size_t files) {
    iFileSystem.setConnectionPool(memoryPool(folders, files));
    NSErrorRef error;
    require(iFileSystem.preflight(&error), "the file system does not connect");
  }
  OmbraFileSystem& fileSystem() { return iFileSystem; }
  size_t list(const std::string& path) {
    NSErrorRef error;
    const auto names = iFileSystem.contentsOfDirectoryAtPath(path, &error);
    require(names.has_value(), "the folder cannot be listed");
    return names->size();
  }

 private:
  OmbraFileSystem iFileSystem;
};

void lookUpKnownPath(benchmark::State& state) {
  const auto files = static_cast<size_t>(state.range(0));
  MountedTree tree(10, files);
  std::vector<std::string> paths;
  for (size_t folder = 0; folder < 10; ++folder) {
    require(tree.list(fmt::format("/folder{:05}", folder)) == files, "names are missing");
    for (size_t file = 0; file < 100; ++file)
      paths.push_back(fmt::format("/folder{:05}/file{:05}", folder, file * (files / 100)));
  }
  size_t next = 0;
  for ([[maybe_unused]] auto _ : state) {
    const auto node = tree.fileSystem().nodeForPath(paths[next]);
    require(node != nullptr, "a path is not found");
    benchmark::DoNotOptimize(node.get());
    next = (next + 1) % paths.size();
  }
}
BENCHMARK(lookUpKnownPath)->Arg(100)->Arg(10000);

void lookUpMissingName(benchmark::State& state) {
  MountedTree tree(10, 1000);
  tree.list("/folder00000");
  for ([[maybe_unused]] auto _ : state)
    require(tree.fileSystem()._nodeForPath("/folder00000/nothing") == nullptr, "a name is found");
}
BENCHMARK(lookUpMissingName);

// A first listing makes the nodes; a later one finds each entry again.
void mergeFirstListing(benchmark::State& state) {
  const auto files = static_cast<size_t>(state.range(0));
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    auto tree = std::make_unique<MountedTree>(1, files);
    require(tree->list("/") == 1, "the folder is missing");
    state.ResumeTiming();
    require(tree->list("/folder00000") == files, "names are missing");
    state.PauseTiming();
    tree.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(mergeFirstListing)->Arg(100)->Arg(10000);

void mergeKnownListing(benchmark::State& state) {
  const auto files = static_cast<size_t>(state.range(0));
  MountedTree tree(1, files);
  tree.list("/folder00000");
  const auto folder = tree.fileSystem().nodeForPath("/folder00000");
  for ([[maybe_unused]] auto _ : state) {
    folder->setExpired(true);
    require(tree.list("/folder00000") == files, "names are missing");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(mergeKnownListing)->Arg(100)->Arg(10000);

}  // namespace
}  // namespace ombra
