// Listings that overlap each other, and what is made meanwhile.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <utility>

#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

class ListingRace : public FileSystemTest {
 protected:
  std::shared_ptr<KCRemoteFileNode> file(const std::string& path) {
    return std::make_shared<KCRemoteFileNode>(path, server.credentials());
  }
};

// The second fetch begins and ends while the server answers the first.
TEST_F(ListingRace, TheLaterOfTwoFetchesWins) {
  connect();
  bool isFirst = true;
  server.setContentsHandler([&](std::string_view, auto* nodes, NSErrorRef*) {
    const bool isOuter = std::exchange(isFirst, false);
    if (isOuter) {
      EXPECT_TRUE(fileSystem.contentsOfDirectoryAtPath("/", nullptr).has_value());
    }
    nodes->push_back(file(isOuter ? "/merged-later" : "/merged-earlier"));
    return true;
  });
  list("/");
  EXPECT_NE(fileSystem._nodeForPath("/merged-later"), nullptr);
  EXPECT_EQ(fileSystem._nodeForPath("/merged-earlier"), nullptr);
}

TEST_F(ListingRace, TheServerIsAskedOutsideTheFoldersLock) {
  server.addFile("/a.txt", "a");
  connect();
  list("/");
  makeStale("/");
  std::future<void> lookUp;  // outlives the answer: it would end after it if the lock were held
  bool isFree = false;
  server.setContentsHandler([&](std::string_view, auto* nodes, NSErrorRef*) {
    lookUp = std::async(std::launch::async, [&] { EXPECT_NE(fileSystem._nodeForPath("/a.txt"), nullptr); });
    isFree = lookUp.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    nodes->push_back(file("/a.txt"));
    return true;
  });
  list("/");
  EXPECT_TRUE(isFree);
}

// Who holds the folder's lock keeps nobody from finding its listing too old, nor from asking for the next.
TEST_F(ListingRace, AListingIsFoundOldWithoutTheFoldersLock) {
  connect();
  list("/");
  clock.advance(60);
  server.clearCalls();
  const std::shared_ptr<KCRemoteFolderNode> root = fileSystem.rootNode();
  std::future<std::vector<std::string>> listing;
  {
    RecursiveMutexLock lock(root->objectLock());
    listing = std::async(std::launch::async, [&] { return list("/"); });
    EXPECT_TRUE(server.waitForCalls("contentsAtPath", 1));
    EXPECT_EQ(ofs_property<NSDate>(*root, kOFSExpirationDate), clock.now());
  }
  listing.get();
}

// A removal holds a session while it waits for the lock; with the lock held, a resolution that has lost its
// session would wait for that one.
TEST_F(ListingRace, LinksAreResolvedOutsideTheFoldersLock) {
  server.addFile("/home/u/a.txt", "a");
  server.addLink("/home/u/inside", "/home/u/a.txt");
  server.addLink("/home/u/outside", "/srv/share/x.txt");
  server.addFile("/srv/share/x.txt", "x");
  connectAt("/home/u");
  list("/");
  for (const auto& [operation, path] :
       {std::pair("resolvePath", "/home/u/inside"), std::pair("attributesOfItemAtPath", "/srv/share/x.txt"),
        std::pair("contentsAtPath", "/srv/share")}) {
    const std::string name = std::string("/made during ") + operation;
    server.addFile("/home/u" + name, "");
    makeStale("/");
    list("/");
    makeStale("/");
    const auto hold = server.hold(operation, path);
    std::thread lister([&] { EXPECT_TRUE(fileSystem.contentsOfDirectoryAtPath("/", nullptr).has_value()); });
    ASSERT_TRUE(hold->waitUntilHeld());
    std::future<bool> removal =
        std::async(std::launch::async, [&] { return fileSystem.removeItemAtPath(name, nullptr); });
    EXPECT_EQ(removal.wait_for(std::chrono::seconds(20)), std::future_status::ready) << operation;
    hold->release();
    lister.join();
    EXPECT_TRUE(removal.get());
    EXPECT_EQ(fileSystem._nodeForPath(name), nullptr) << "the older listing has brought it back";
  }
}

class ListingRaceOfNews : public ListingRace, public testing::WithParamInterface<bool> {
 protected:
  ListingRaceOfNews() { server.setTellsNews(GetParam()); }
};

// However listings of others end around it, an item that was just made is found at once.
TEST_P(ListingRaceOfNews, WhatWasMadeIsFoundAtOnce) {
  connect();
  std::atomic<bool> isDone{false};
  const auto listOnAndOn = [&](bool isWhole) {
    while (!isDone) {
      const std::shared_ptr<KCRemoteFolderNode> root = fileSystem.rootNode();
      isWhole ? root->setExpired(true) : root->setHasNewItems(true);
      fileSystem.contentsOfDirectoryAtPath("/", nullptr);
    }
  };
  std::thread one(listOnAndOn, true);
  std::thread two(listOnAndOn, false);
  int missing = 0;
  for (int index = 0; index < 150; ++index) {
    const std::string path = "/d" + std::to_string(index);
    EXPECT_TRUE(fileSystem.createDirectoryAtPath(path, {}, nullptr));
    if (fileSystem.nodeForPath(path) == nullptr) ++missing;
  }
  isDone = true;
  one.join();
  two.join();
  EXPECT_EQ(missing, 0);
}

// Of those who make something in one folder at the same time, each finds what he has made.
TEST_P(ListingRaceOfNews, WhatEachOfManyHasMadeIsFound) {
  connect();
  list("/");
  std::atomic<int> missing{0};
  std::vector<std::thread> makers;
  for (int maker = 0; maker < 4; ++maker) {
    makers.emplace_back([&, maker] {
      for (int index = 0; index < 50; ++index) {
        const std::string path = "/f" + std::to_string(maker) + "-" + std::to_string(index);
        GMUserData opened;
        if (!fileSystem.createFileAtPath(path, {}, &opened, nullptr)) {
          ++missing;
        } else {
          fileSystem.releaseFileAtPath(path, opened);
        }
        if (index % 5 == 0 && !fileSystem.removeItemAtPath(path, nullptr)) ++missing;
      }
    });
  }
  for (std::thread& maker : makers) maker.join();
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(list("/").size(), 160u);
  makeStale("/");
  EXPECT_EQ(list("/").size(), 160u);
}

INSTANTIATE_TEST_SUITE_P(Servers, ListingRaceOfNews, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "tellNews" : "listAll"; });

}  // namespace
}  // namespace ombra
