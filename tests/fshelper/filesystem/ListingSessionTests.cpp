// Listings and removals that need the same few sessions.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <utility>

#include "tests/fshelper/filesystem/FileSystemFixture.h"
#include "tests/support/FakeEngine.h"

namespace ombra {
namespace {

class ListingSessions : public FileSystemTest {
 protected:
  ListingSessions() {
    fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>* entries,
                                 NSErrorRef*) {
      if (const auto hook = std::exchange(beforeListing, {})) hook();
      RemoteEntry link;
      link.name = "link";
      link.type = kNodeTypeAlias;
      link.targetPath = "file";
      RemoteEntry file;
      file.name = "file";
      *entries = {link, file};
      return true;
    };
    fileSystem.setConnectionPool(fake.pool);
    fake.pool->setMaximumConnections(1);
  }

  static bool isReady(const std::future<bool>& result) {
    return result.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
  }

  // Lets the clock run over the pauses of calls until both have ended. A pool that is shut down ends those
  // that never would.
  void waitForBoth(const std::future<bool>& one, const std::future<bool>& other) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!isReady(one) || !isReady(other)) {
      clock.advance(0.3);
      if (std::chrono::steady_clock::now() < end) continue;
      ADD_FAILURE() << "each waits for what the other has";
      fake.pool->shutDown();
      return;
    }
  }

  FakePool fake;
  std::function<void()> beforeListing;  // once
};

// The listing comes while the removal waits in line for the only session; the listing then loses that session
// over a link, and the removal gets the next.
TEST_F(ListingSessions, AListingThatLosesItsSessionOverALinkLetsARemovalEnd) {
  ASSERT_TRUE(fileSystem.preflight(&error));
  ASSERT_THAT(list("/"), testing::ElementsAre("link", "file"));
  makeStale("/");
  std::future<bool> removal;
  beforeListing = [&] {
    removal = std::async(std::launch::async, [&] { return fileSystem.removeItemAtPath("/file", nullptr); });
    while (!fake.pool->sessions().othersWait() && !isReady(removal)) std::this_thread::yield();
    EXPECT_FALSE(isReady(removal)) << "it did not wait for the session";
  };
  std::atomic<bool> wasLost{false};
  fake.engine->onResolve = [&](FakeSession&, const std::string& path,
                               NSErrorRef* fault) -> std::optional<LinkResolution> {
    if (!wasLost.exchange(true)) {
      failWith(kQuarnKitConnectionLost, fault);
      return std::nullopt;
    }
    LinkResolution resolution;
    resolution.resolved = true;
    resolution.resolvedPath = path;
    return resolution;
  };
  std::atomic<bool> isAsked{false};
  std::future<bool> listing = std::async(std::launch::async, [&] {
    const bool isListed = fileSystem.contentsOfDirectoryAtPath("/", nullptr).has_value();
    isAsked = true;
    return isListed;
  });
  while (!wasLost && !isAsked) std::this_thread::yield();
  ASSERT_TRUE(removal.valid());
  waitForBoth(listing, removal);
  EXPECT_TRUE(removal.get());
  EXPECT_TRUE(listing.get());
  EXPECT_NE(fileSystem._nodeForPath("/link"), nullptr);
  EXPECT_EQ(fileSystem._nodeForPath("/file"), nullptr) << "the older listing has brought it back";
}

}  // namespace
}  // namespace ombra
