// Large trees and many files: what each item costs, and that it costs no more where there are many.
#include <fmt/format.h>
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "fshelper/OFSNodeFileTable.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

size_t allocatedBytes() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

// What other processes do does not count.
double secondsOfThread() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// The least of a few measurements: what disturbs makes it only longer.
template <typename Work>
double secondsOf(Work&& work) {
  double least = 1e9;
  for (int round = 0; round < 5; ++round) {
    const double before = secondsOfThread();
    work();
    least = std::min(least, secondsOfThread() - before);
  }
  return least;
}

class LargeTree : public FileSystemTest {
 protected:
  // The root has a folder for each number, with as many files. All are listed.
  void makeTree(const std::vector<size_t>& files) {
    counts = files;
    server.setContentsHandler([this](std::string_view path, auto* nodes, NSErrorRef*) {
      const bool isRoot = path == "/";
      const size_t count = isRoot ? counts.size() : counts.at(std::stoul(std::string(path.substr(1))));
      for (size_t i = 0; i < count; ++i) {
        const std::string whole = isRoot ? pathOf(i) : pathOf(path, i);
        auto node = isRoot ? KCRemoteFolderNode::folderNodeWithPath(whole, server.credentials())
                           : std::make_shared<KCRemoteFileNode>(whole, server.credentials());
        node->setAttributes(withSize(i));
        nodes->push_back(std::move(node));
      }
      return true;
    });
    connect();
    list("/");
    server.clearCalls();
    const size_t before = allocatedBytes();
    size_t nodes = 0;
    for (size_t folder = 0; folder < counts.size(); ++folder) {
      nodes += list(pathOf(folder)).size();
      server.clearCalls();  // the record of calls is none of the tree
    }
    bytesPerNode = static_cast<double>(allocatedBytes() - before) / static_cast<double>(nodes);
  }
  static std::string pathOf(size_t folder) { return fmt::format("/{:05}", folder); }
  static std::string pathOf(std::string_view folder, size_t file) {
    return fmt::format("{}/file{:05}", folder, file);
  }
  // For a thousand look-ups in so many folders from the `first` on.
  double secondsOfLookUps(size_t first, size_t folders) {
    std::mt19937_64 random(1);
    std::vector<std::string> paths;
    for (size_t i = 0; i < 1000; ++i) {
      const size_t folder = first + random() % folders;
      paths.push_back(pathOf(pathOf(folder), random() % counts[folder]));
    }
    return secondsOf([this, &paths] {
      for (const std::string& path : paths) ASSERT_NE(fileSystem._nodeForPath(path), nullptr);
    });
  }
  std::vector<size_t> counts;
  double bytesPerNode = 0;
};

constexpr double kMostBytesPerNode = 220;

TEST_F(LargeTree, ANodeTakesLittleMemory) {
  makeTree(std::vector<size_t>(20, 1000));
  EXPECT_LT(bytesPerNode, kMostBytesPerNode);
}

TEST_F(LargeTree, NodesWithLongNamesShareTheirFoldersPath) {
  auto inFolder = [](const std::string& folder) {
    const size_t before = allocatedBytes();
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    for (size_t i = 0; i < 1000; ++i)
      nodes.push_back(std::make_shared<KCRemoteFileNode>(fmt::format("{}/{:05}", folder, i), nullptr));
    return allocatedBytes() - before;
  };
  EXPECT_LT(inFolder("/" + std::string(200, 'x')), inFolder("/x") + 2000);
}

bool isNightly() { return std::getenv("OMBRA_NIGHTLY") != nullptr; }

TEST_F(LargeTree, OfAMillionNodesNoneTakesMoreNorIsFoundLater) {
  if (!isNightly()) GTEST_SKIP() << "Takes some seconds: set OMBRA_NIGHTLY=1, or run scripts/test --nightly.";
  makeTree(std::vector<size_t>(1000, 1000));
  EXPECT_LT(bytesPerNode, kMostBytesPerNode);
  // They lie further apart, but no more of them are looked at.
  EXPECT_LT(secondsOfLookUps(0, 1000), 8 * secondsOfLookUps(0, 1));
}

TEST_F(LargeTree, ALookUpInAFolderOfAHundredThousandTakesNoLongerThanInASmallOne) {
  if (!isNightly()) GTEST_SKIP() << "Takes some seconds: set OMBRA_NIGHTLY=1, or run scripts/test --nightly.";
  makeTree({100000, 100});
  EXPECT_LT(bytesPerNode, kMostBytesPerNode);
  EXPECT_LT(secondsOfLookUps(0, 1), 8 * secondsOfLookUps(1, 1));
}

// What happens to each file that a program makes in a folder that grows.
TEST_F(LargeTree, AnOpenFileAmongThousandsCostsAsMuchAsTheFirst) {
  OFSNodeFileTable table;
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  auto addSome = [&table, &files] {
    for (size_t i = 0; i < 400; ++i) {
      const auto& file =
          files.emplace_back(OFSRemoteFile::remoteFileForPath(fmt::format("/{:05}", files.size())));
      table.add(file, nullptr);
      table.beginUse(*file);
      table.endUse(*file);
      table.lookAgain();
      (void)table.detachedAtPath(file->remotePath());
      (void)table.atAndBelowPath(file->remotePath());
      (void)table.firstUnusedAfter(0);
    }
  };
  auto secondsOfSome = [&addSome] {
    const double before = secondsOfThread();
    addSome();
    return secondsOfThread() - before;
  };
  // One left behind: every new file is compared with it, and it alone.
  const auto left = OFSRemoteFile::remoteFileForPath("/left");
  table.add(left, nullptr);
  table.beginUse(*left);
  table.detach(*left);
  const double first = std::min(secondsOfSome(), secondsOfSome());
  for (int i = 0; i < 6; ++i) addSome();
  EXPECT_LT(std::min(secondsOfSome(), secondsOfSome()), 4 * first);
}

}  // namespace
}  // namespace ombra
