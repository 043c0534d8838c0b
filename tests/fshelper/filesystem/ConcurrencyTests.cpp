// Several threads at once.
#include <atomic>
#include <functional>
#include <thread>

#include "fshelper/OFSNodeChanges.h"
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Concurrency : public FileSystemTest {
 protected:
  static void onThreads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index) threads.emplace_back(body, index);
    for (std::thread& thread : threads) thread.join();
  }
};

TEST_F(Concurrency, SimultaneousOpensShareOneObject) {
  server.addFile("/a.txt", "content");
  connect();
  std::vector<GMUserData> files(8);
  onThreads(8, [&](int index) {
    EXPECT_TRUE(fileSystem.openFileAtPath("/a.txt", kO_RDONLY, &files[static_cast<size_t>(index)], nullptr));
  });
  for (const GMUserData& file : files) EXPECT_EQ(file, files[0]);
  EXPECT_EQ(server.count("downloadFileAtPath"), 1u);
}

TEST_F(Concurrency, ListingsOfOneFolderAgree) {
  for (int index = 0; index < 50; ++index) server.addFile("/f" + std::to_string(index), "");
  connect();
  onThreads(8, [&](int) {
    for (int round = 0; round < 20; ++round) {
      const auto names = fileSystem.contentsOfDirectoryAtPath("/", nullptr);
      ASSERT_TRUE(names.has_value());
      EXPECT_EQ(names->size(), 50u);
      fileSystem.rootNode()->setExpired(true);
      EXPECT_TRUE(fileSystem.attributesOfItemAtPath("/f7", nullptr, nullptr).has_value());
    }
  });
}

TEST_F(Concurrency, AFreshFolderAnswersWhileTheServerIsSlowElsewhere) {
  server.addFile("/a.txt", "a");
  server.addFolder("/slow");
  connect();
  list("/");
  const auto hold = server.hold("contentsAtPath", "/slow");
  std::thread slow([&] { fileSystem.contentsOfDirectoryAtPath("/slow", nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_THAT(list("/"), UnorderedElementsAre("a.txt", "slow"));
  EXPECT_TRUE(fileSystem.attributesOfItemAtPath("/slow", nullptr, nullptr).has_value());
  hold->release();
  slow.join();
}

TEST_F(Concurrency, MovesInOppositeDirectionsDoNotWaitForEachOther) {
  server.addFolder("/a");
  server.addFolder("/b");
  for (int index = 0; index < 8; ++index) {
    server.addFile("/a/f" + std::to_string(index), "");
    server.addFile("/b/g" + std::to_string(index), "");
  }
  connect();
  onThreads(2, [&](int thread) {
    for (int index = 0; index < 8; ++index) {
      const std::string name = (thread == 0 ? "/f" : "/g") + std::to_string(index);
      const std::string from = thread == 0 ? "/a" : "/b";
      const std::string to = thread == 0 ? "/b" : "/a";
      EXPECT_TRUE(fileSystem.moveItemAtPath(from + name, to + name, nullptr));
    }
  });
  EXPECT_EQ(list("/a").size(), 8u);
  EXPECT_NE(fileSystem._nodeForPath("/b/f3"), nullptr);
}

TEST_F(Concurrency, EverythingAtOnceStaysConsistent) {
  for (int index = 0; index < 4; ++index) server.addFolder("/d" + std::to_string(index));
  connect();
  fileSystem.setCacheBudget(0, 0);
  std::atomic<int> failures{0};
  onThreads(6, [&](int thread) {
    const std::string folder = "/d" + std::to_string(thread % 4);
    for (int round = 0; round < 15; ++round) {
      const std::string path = folder + "/t" + std::to_string(thread) + "r" + std::to_string(round);
      GMUserData file;
      if (!fileSystem.createFileAtPath(path, {}, &file, nullptr)) {
        ++failures;
        continue;
      }
      if (fileSystem.writeFileAtPath(path, file, "text", 4, 0, nullptr) != 4) ++failures;
      fileSystem.releaseFileAtPath(path, file);
      fileSystem.trimCache();
      if (!fileSystem.moveItemAtPath(path, path + ".moved", nullptr)) ++failures;
      if (!fileSystem.setExtendedAttribute("user.x", path + ".moved", {1}, 0, 0, nullptr)) ++failures;
      if (round % 2 == 0 && !fileSystem.removeItemAtPath(path + ".moved", nullptr)) ++failures;
      fileSystem.fileSystemAttributesNeedUpdate(true);
    }
  });
  EXPECT_EQ(failures, 0);
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_EQ(server.list("/d0").size() + server.list("/d1").size() + server.list("/d2").size() +
                server.list("/d3").size(),
            6u * 7u);
}

// A listing that left the server before a change made here, and is merged after it.
class LateListing : public FileSystemTest {
 protected:
  LateListing() {
    server.addFile("/a.txt", "a");
    server.addFile("/sub/x.txt", "x");
    connect();
    list("/");
    list("/sub");
  }
  // Runs `change` between the server's answer for "/" and its merge.
  void changeDuringListing(const std::function<void()>& change) {
    makeStale("/");
    std::vector<std::shared_ptr<KCRemoteFileNode>> answer;
    for (const std::string& name : server.list("/")) {
      if (server.content("/" + name)) {
        answer.push_back(std::make_shared<KCRemoteFileNode>("/" + name, server.credentials()));
      } else {
        answer.push_back(KCRemoteFolderNode::folderNodeWithPath("/" + name, server.credentials()));
      }
    }
    bool isFirst = true;
    server.setContentsHandler([&](std::string_view, auto* nodes, NSErrorRef*) {
      *nodes = answer;
      if (std::exchange(isFirst, false)) {
        server.setContentsHandler({});
        change();
      }
      return true;
    });
    list("/");
    server.setContentsHandler({});
  }
};

TEST_F(LateListing, DoesNotBringBackWhatWasRemoved) {
  changeDuringListing([&] { EXPECT_TRUE(fileSystem.removeItemAtPath("/a.txt", nullptr)); });
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
}

TEST_F(LateListing, DoesNotTakeAwayWhatWasMade) {
  GMUserData file;
  changeDuringListing([&] { EXPECT_TRUE(fileSystem.createFileAtPath("/new.txt", {}, &file, nullptr)); });
  EXPECT_EQ(fileOnNode("/new.txt"), file);
}

TEST_F(LateListing, DoesNotUndoARename) {
  const auto node = fileSystem._nodeForPath("/a.txt");
  changeDuringListing([&] { EXPECT_TRUE(fileSystem.moveItemAtPath("/a.txt", "/b.txt", nullptr)); });
  EXPECT_EQ(fileSystem._nodeForPath("/b.txt"), node);
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
}

// The other way round: the listing begins, and is merged, while the server is asked to move.
TEST_F(LateListing, OfTheServersNewStateDoesNotReplaceTheMovedNode) {
  const GMUserData file = open("/a.txt");
  const auto node = fileSystem._nodeForPath("/a.txt");
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "moveItemFromPath") return;
    server.addFile("/b.txt", "a");
    server.removeItem("/a.txt");
    makeStale("/");
    list("/");
    server.addFile("/a.txt", "a");
    server.removeItem("/b.txt");
  });
  ASSERT_TRUE(fileSystem.moveItemAtPath("/a.txt", "/b.txt", &error));
  EXPECT_EQ(fileSystem._nodeForPath("/b.txt"), node);
  EXPECT_EQ(fileOnNode("/b.txt"), file);
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
}

TEST_F(LateListing, AfterARefusedMoveShowsWhatIsThere) {
  server.fail("moveItemFromPath", "/a.txt", refusal());
  ASSERT_FALSE(fileSystem.moveItemAtPath("/a.txt", "/b.txt", &error));
  server.removeItem("/a.txt");
  server.addFile("/b.txt", "b");
  makeStale("/");
  EXPECT_THAT(list("/"), UnorderedElementsAre("sub", "b.txt"));
}

TEST_F(LateListing, DoesNotUndoAMoveIntoTheFolder) {
  const auto node = fileSystem._nodeForPath("/sub/x.txt");
  changeDuringListing([&] { EXPECT_TRUE(fileSystem.moveItemAtPath("/sub/x.txt", "/x.txt", nullptr)); });
  EXPECT_EQ(fileSystem._nodeForPath("/x.txt"), node);
}

TEST_F(LateListing, IsFetchedAgainOnTheNextUse) {
  changeDuringListing([&] { EXPECT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, nullptr)); });
  EXPECT_NE(fileSystem.nodeForPath("/new"), nullptr);
  server.clearCalls();
  list("/");
  EXPECT_THAT(serverCalls(), IsEmpty());
}

TEST_F(LateListing, ADeletionByOthersAfterOursIsSeen) {
  GMUserData file;
  ASSERT_TRUE(fileSystem.createFileAtPath("/new.txt", {}, &file, &error));
  server.removeItem("/new.txt");
  makeStale("/");
  list("/");
  EXPECT_EQ(fileSystem._nodeForPath("/new.txt"), nullptr);
}

TEST(NodeChanges, KnowWhatIsYoungerThanAFetch) {
  OFSNodeChanges changes;
  const KCRemoteFolderNode folder("/", nullptr);
  changes.note(folder, "old", OFSNodeChanges::Kind::kMade);
  OFSNodeChanges::Fetch fetch(changes, folder);
  EXPECT_EQ(changes.changeSince(folder, "old", fetch.mark()), std::nullopt);
  EXPECT_TRUE(changes.wasMade(folder, "old"));
  changes.note(folder, "caf\xC3\xA9", OFSNodeChanges::Kind::kRemoved);
  EXPECT_EQ(changes.changeSince(folder, "cafe\xCC\x81", fetch.mark()), OFSNodeChanges::Kind::kRemoved);
  EXPECT_TRUE(fetch.end());
  EXPECT_FALSE(changes.wasMade(folder, "old"));
}

TEST(NodeChanges, AreForgottenByTheFirstFetchThatBeganAfterThem) {
  OFSNodeChanges changes;
  const KCRemoteFolderNode folder("/", nullptr);
  changes.note(folder, "x", OFSNodeChanges::Kind::kMade);
  EXPECT_FALSE(OFSNodeChanges::Fetch(changes, folder).end());
  EXPECT_FALSE(changes.wasMade(folder, "x"));
}

TEST(NodeChanges, AreKeptForAnEarlierFetchThatIsStillUnderWay) {
  OFSNodeChanges changes;
  const KCRemoteFolderNode folder("/", nullptr);
  OFSNodeChanges::Fetch slow(changes, folder);
  changes.note(folder, "x", OFSNodeChanges::Kind::kMade);
  EXPECT_FALSE(OFSNodeChanges::Fetch(changes, folder).end());
  EXPECT_EQ(changes.changeSince(folder, "x", slow.mark()), OFSNodeChanges::Kind::kMade);
  EXPECT_TRUE(slow.end());
}

TEST(NodeChanges, BelongToTheirFolder) {
  OFSNodeChanges changes;
  const KCRemoteFolderNode folder("/", nullptr);
  const KCRemoteFolderNode other("/other", nullptr);
  changes.note(folder, "x", OFSNodeChanges::Kind::kMade);
  EXPECT_FALSE(changes.wasMade(other, "x"));
  EXPECT_FALSE(OFSNodeChanges::Fetch(changes, other).end());
  EXPECT_TRUE(changes.wasMade(folder, "x"));
}

}  // namespace
}  // namespace ombra
