// Which folders are listed before they are asked for, and when that is of use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "remote/ListingsAhead.h"
#include "remote/PooledConnection.h"
#include "remote/RemotePaths.h"
#include "tests/remote/AskedAhead.h"
#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"
#include "tests/support/WatchedCondition.h"

namespace ombra {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Entries = ListingsAhead::Entries;

// The content of a stream: nothing.
class NoBytes final : public ConnectionDelegate {
 public:
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
};

Entries foldersNamed(std::initializer_list<const char*> names) {
  Entries entries;
  for (const char* name : names) entries.push_back(entryNamed(name, kNodeTypeFolder));
  return entries;
}

class ListingsAheadTest : public testing::Test {
 protected:
  static constexpr double kSlow = 0.1;
  static constexpr double kNearby = 0.001;

  ListingsAheadTest() { asked.answer = {entryNamed("file", kNodeTypeFile)}; }
  ~ListingsAheadTest() override {
    asked.sessions.open();
    asked.server.open();
  }

  // Somebody lists the folder. True when it had been listed for him.
  bool goTo(const std::string& folder, const Entries& entries = {}, double seconds = kSlow) {
    const std::optional<Entries> known = ahead->take(folder);
    ahead->listed(folder, known ? *known : entries, known ? std::nullopt : std::optional(seconds));
    return known.has_value();
  }
  // A program has come so far that it is known to walk.
  void walkToTheThird(double seconds = kSlow) {
    EXPECT_FALSE(goTo(
        "/", foldersNamed({"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n"}), seconds));
    for (const char* folder : {"/a", "/b", "/c"}) EXPECT_FALSE(goTo(folder, {}, seconds));
  }
  std::unique_ptr<ListingsAhead> makeAhead() {
    return std::make_unique<ListingsAhead>(
        walks, [this] { return asked.room.load(); },
        [this](auto& request, Entries* entries) { return asked.fetch(request, entries); });
  }
  // So far that the next two are listed, for which the server takes so long.
  void walkUntilTwoAreListed(double seconds) {
    asked.isSlow = true;
    walkToTheThird(seconds);
    ASSERT_TRUE(asked.server.waitUntilEntered(2));
    clock.advance(seconds);
    asked.server.open();
    ASSERT_TRUE(asked.waitUntilEnded(2));
    waitUntilKept();
    asked.room = 0;
  }
  // What was fetched is here, and is as old as the clock says.
  void waitUntilKept() {
    waitUntilNone([this] { return ahead->underWay(); }, "it does not come");
  }
  void waitUntilForgotten() {
    waitUntilNone([this] { return ahead->count(); }, "it is kept");
  }
  template <typename Count>
  static void waitUntilNone(const Count& count, const char* otherwise) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (count() > 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << otherwise;
      std::this_thread::yield();
    }
  }
  // What was ever begun, once no more can be.
  std::vector<std::string> allBegun() {
    ahead.reset();
    return asked.begun();
  }

  ManualClock clock;
  AskedAhead<Entries> asked;
  Walks walks;
  std::unique_ptr<ListingsAhead> ahead = makeAhead();
};

TEST_F(ListingsAheadTest, AWalkFindsItsNextFoldersListed) {
  asked.isSlow = true;
  walkToTheThird();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  clock.advance(kSlow);
  asked.server.open();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_THAT(asked.begun(), UnorderedElementsAre("/d", "/e"));
  const std::optional<Entries> known = ahead->take("/d");
  ASSERT_TRUE(known.has_value());
  ASSERT_EQ(known->size(), 1u);
  EXPECT_EQ(known->front().name, "file");
  ahead->listed("/d", *known, std::nullopt);
  ASSERT_TRUE(asked.waitUntilEnded(3));
  EXPECT_THAT(asked.begun(), Contains("/f"));
}

TEST_F(ListingsAheadTest, EachIsHandedOutOnce) {
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_TRUE(ahead->take("/d").has_value());
  EXPECT_FALSE(ahead->take("/d").has_value());
}

TEST_F(ListingsAheadTest, NothingIsListedForOneWhoLooksAround) {
  goTo("/", foldersNamed({"a", "b", "c", "d", "e"}));
  goTo("/a");
  goTo("/b");
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(ListingsAheadTest, AServerThatAnswersAtOnceIsAskedOneQuestionAfterTheOther) {
  walkToTheThird(0.0001);
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(ListingsAheadTest, AServerNearbyIsAskedAheadToo) {
  walkToTheThird(kNearby);
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_TRUE(goTo("/d"));
}

TEST_F(ListingsAheadTest, WhatCameFromNearbyIsAskedForAnewAfterATenthOfASecond) {
  walkUntilTwoAreListed(kNearby);
  clock.advance(AheadLimits::kMostSecondsOldNearby);
  EXPECT_TRUE(goTo("/d"));
  clock.advance(0.001);
  EXPECT_FALSE(goTo("/e"));
}

TEST_F(ListingsAheadTest, WhatCameFromNearbyDoesNotKeepLongerSinceSomethingElseTookItsTime) {
  walkUntilTwoAreListed(kNearby);
  goTo("/elsewhere", {}, kSlow);
  clock.advance(AheadLimits::kMostSecondsOldNearby + 0.001);
  EXPECT_FALSE(goTo("/d"));
}

TEST_F(ListingsAheadTest, WhatTookItsTimeKeepsThoughSomethingElseWasAnsweredAtOnce) {
  walkUntilTwoAreListed(kSlow);
  goTo("/elsewhere", {}, kNearby);
  clock.advance(AheadLimits::kMostSecondsOld);
  EXPECT_TRUE(goTo("/d"));
}

TEST_F(ListingsAheadTest, NothingFromNearbyStaysInMemoryThatNobodyAsksFor) {
  walkUntilTwoAreListed(kNearby);
  clock.advance(AheadLimits::kMostSecondsOldNearby + AheadLimits::kALittle);
  waitUntilForgotten();
}

TEST_F(ListingsAheadTest, AServerThatAnswersAtOnceByNowIsAskedNothingMoreAhead) {
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  // The clock stands still: these took no time at all.
  for (const char* folder : {"/d", "/e"}) EXPECT_TRUE(goTo(folder));
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(ListingsAheadTest, NoMoreSessionsAreTakenThanAreToSpare) {
  asked.room = 1;
  walkToTheThird();
  EXPECT_EQ(ahead->count(), 1u);
  asked.room = 0;
  EXPECT_TRUE(asked.waitUntilEnded(1));
  EXPECT_TRUE(ahead->take("/d").has_value());
  ahead->listed("/d", {}, kSlow);
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(ListingsAheadTest, WhatCameMoreThanASecondAgoIsAskedForAnew) {
  walkUntilTwoAreListed(kSlow);
  clock.advance(AheadLimits::kMostSecondsOld);
  EXPECT_TRUE(ahead->take("/d").has_value());
  clock.advance(0.001);
  EXPECT_FALSE(ahead->take("/e").has_value());
}

TEST_F(ListingsAheadTest, NothingStaysInMemoryThatNobodyAsksFor) {
  walkUntilTwoAreListed(kSlow);
  clock.advance(AheadLimits::kMostSecondsOld + AheadLimits::kALittle);
  waitUntilForgotten();
}

// To ask anew would take as long once more.
TEST_F(ListingsAheadTest, AListingMayTakeItsTime) {
  asked.isSlow = true;
  walkToTheThird();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  clock.advance(10);
  asked.server.open();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_TRUE(goTo("/d"));
  EXPECT_TRUE(goTo("/e"));
}

TEST_F(ListingsAheadTest, WhereNoSessionIsToBeHadNoneIsAskedForForAWhile) {
  asked.hasNoSession = true;
  goTo("/", foldersNamed({"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o", "p"}));
  for (const char* folder : {"/a", "/b", "/c"}) goTo(folder);
  ASSERT_TRUE(asked.waitUntilCalledOff(2));
  waitUntilKept();
  for (char name = 'd'; name < 'o'; ++name) {
    EXPECT_FALSE(goTo(std::string("/") + name));
    clock.advance(AheadLimits::kMostSecondsOld + 0.5);
  }
  EXPECT_EQ(asked.calledOff(), 2u);
}

TEST_F(ListingsAheadTest, WhateverGoesWrongIsNobodysFailure) {
  asked.throws = true;
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_FALSE(goTo("/d"));
}

TEST_F(ListingsAheadTest, AfterListingsForNothingSomeArePassedBeforeTheNext) {
  Entries many;
  for (char name = 'a'; name <= 'z'; ++name) many.push_back(entryNamed({name}, kNodeTypeFolder));
  goTo("/", many);
  for (const char* folder : {"/a", "/b", "/c"}) goTo(folder);
  ASSERT_TRUE(asked.waitUntilEnded(2));
  waitUntilKept();
  clock.advance(AheadLimits::kMostSecondsOld + 0.001);
  for (char name = 'd'; name < 'k'; ++name) {
    EXPECT_FALSE(goTo(std::string("/") + name)) << name;
    EXPECT_EQ(ahead->count(), 0u) << name;
  }
  EXPECT_FALSE(goTo("/k"));
  ASSERT_TRUE(asked.waitUntilEnded(3));
  EXPECT_TRUE(goTo("/l"));
}

TEST_F(ListingsAheadTest, WhatMayHaveBeenChangedMeanwhileIsAskedForAnew) {
  for (const auto& [changed, isStillGood] : {std::pair{"/d/new", false}, {"/d", false}, {"/x/new", true}}) {
    ahead = makeAhead();
    const size_t before = asked.begun().size();
    walkToTheThird();
    ASSERT_TRUE(asked.waitUntilEnded(before + 2));
    walks.changed(changed);
    EXPECT_EQ(ahead->take("/d").has_value(), isStillGood) << changed;
  }
}

TEST_F(ListingsAheadTest, AChangeWhileItIsListedCountsToo) {
  asked.isSlow = true;
  walkToTheThird();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  walks.changed("/d/new");
  asked.server.open();
  EXPECT_FALSE(ahead->take("/d").has_value());
}

TEST_F(ListingsAheadTest, WhatALinkLeadsToMayHaveBeenChangedAnywhere) {
  RemoteEntry link = entryNamed("link", kNodeTypeAlias);
  link.resolution = LinkResolution{.resolved = true, .resolvedPath = "/elsewhere/file"};
  asked.answer.push_back(link);
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_TRUE(ahead->take("/d").has_value());
  walks.changed("/elsewhere/file");
  EXPECT_FALSE(ahead->take("/e").has_value());
}

TEST_F(ListingsAheadTest, NobodyWaitsForAListingThatHasNoSessionYet) {
  asked.waitsForSession = true;
  walkToTheThird();
  ASSERT_TRUE(asked.sessions.waitUntilEntered(2));
  EXPECT_FALSE(ahead->take("/d").has_value());
  asked.sessions.open();
  ASSERT_TRUE(asked.waitUntilCalledOff(1));
  ASSERT_TRUE(asked.waitUntilEnded(1));
  EXPECT_THAT(allBegun(), ElementsAre("/e"));
}

TEST_F(ListingsAheadTest, WhatFailedIsAskedForAnew) {
  asked.fails = true;
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_FALSE(ahead->take("/d").has_value());
}

TEST_F(ListingsAheadTest, TheFoldersInOneComeBeforeItsNeighbours) {
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  for (const char* folder : {"/e", "/d"}) EXPECT_TRUE(ahead->take(folder).has_value());
  ahead->listed("/d", foldersNamed({"x", "y"}), kSlow);
  ASSERT_TRUE(asked.waitUntilEnded(4));
  auto begun = asked.begun();
  begun.erase(begun.begin(), begun.begin() + 2);
  EXPECT_THAT(begun, UnorderedElementsAre("/d/x", "/d/y"));
}

// Before the folder behind that come the folders in it, which nobody knows yet.
TEST_F(ListingsAheadTest, BehindTheLastFolderInOneComesTheNeighbourOfTheFolderAroundIt) {
  goTo("/", foldersNamed({"a", "b", "c", "d"}));
  goTo("/a", foldersNamed({"x", "y", "z"}));
  for (const char* folder : {"/a/x", "/a/y", "/a/z"}) goTo(folder);
  ASSERT_TRUE(asked.waitUntilEnded(1));
  EXPECT_THAT(allBegun(), ElementsAre("/b"));
}

TEST_F(ListingsAheadTest, NothingIsBegunAtTheEnd) {
  asked.waitsForSession = true;
  walkToTheThird();
  ASSERT_TRUE(asked.sessions.waitUntilEntered(2));
  ahead->stop();
  asked.sessions.open();
  ASSERT_TRUE(asked.waitUntilCalledOff(2));
  EXPECT_THAT(asked.begun(), IsEmpty());
}

TEST_F(ListingsAheadTest, AnEndlessListingThatNobodyAsksForIsBrokenOff) {
  asked.isSlow = true;
  walkToTheThird();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  clock.waitForSleepers(1);
  clock.advance(AheadLimits::kMostSecondsFetching + 2 * AheadLimits::kALittle);
  ASSERT_TRUE(asked.waitUntilBrokenOff(2));
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(ListingsAheadTest, AfterTheWhileSessionsAreAskedForAgain) {
  asked.hasNoSession = true;
  walkToTheThird();
  ASSERT_TRUE(asked.waitUntilCalledOff(2));
  waitUntilKept();
  clock.advance(AheadLimits::kFirstPause + 1);
  // Some are passed besides, since the first ones were of no use.
  for (char name = 'd'; name < 'l'; ++name) goTo(std::string("/") + name);
  EXPECT_TRUE(asked.waitUntilCalledOff(3));
}

// A pool whose server takes a moment for each listing; "/" holds eight folders.
class PoolAhead : public testing::Test {
 protected:
  PoolAhead() {
    fake.engine->ahead = true;
    fake.engine->onList = [this](FakeSession& session, const std::string& path, Entries* entries,
                                 NSErrorRef* error) {
      if (hangs && session.number > 1) {
        fake.engine->gate.pass([&session] { return session.isInterrupted(); });
        return failWith(kQuarnKitConnectionLost, error);
      }
      // Told by the walk's own session alone, so that the test says how late it is.
      if (session.number == 1) clock.advance(0.02);
      *entries = path == "/" ? foldersNamed({"a", "b", "c", "d", "e", "f", "g", "h"})
                             : Entries{entryNamed("file", kNodeTypeFile)};
      const WatchedLock lock(condition);
      listed.push_back(path);
      condition.broadcast();
      return true;
    };
  }
  ~PoolAhead() override {
    if (fake.pool != nullptr) fake.pool->shutDown();
  }

  bool waitUntilListed(size_t count) {
    const WatchedLock lock(condition);
    while (listed.size() < count) {
      if (!condition.waitFor("listings")) return false;
    }
    return true;
  }
  size_t listings() {
    const WatchedLock lock(condition);
    return listed.size();
  }
  ptrdiff_t listingsOf(const std::string& path) {
    const WatchedLock lock(condition);
    return std::count(listed.begin(), listed.end(), path);
  }
  static size_t list(AbstractConnection& connection, const std::string& path) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath(path, &nodes, nullptr));
    return nodes.size();
  }
  // How many listings are under way or waiting to be taken.
  static size_t aheadOf(const AbstractConnection& connection) {
    return dynamic_cast<const PooledConnection&>(connection).core()->listingsAhead.count();
  }
  static void walkToTheThird(AbstractConnection& connection) {
    connection.setTakesAhead(true);
    EXPECT_EQ(list(connection, "/"), 8u);
    for (const char* folder : {"/a", "/b", "/c"}) EXPECT_EQ(list(connection, folder), 1u);
  }

  ManualClock clock;
  WatchedCondition condition;
  std::vector<std::string> listed GUARDED_BY(condition);
  std::atomic<bool> hangs{false};
  FakePool fake;
};

TEST_F(PoolAhead, AWalkIsAnsweredByFurtherSessions) {
  fake.with([this](AbstractConnection& connection) {
    walkToTheThird(connection);
    ASSERT_TRUE(waitUntilListed(6));
    for (const char* folder : {"/d", "/e"}) EXPECT_EQ(list(connection, folder), 1u);
  });
  EXPECT_EQ(listingsOf("/d"), 1);
  EXPECT_GT(fake.engine->made, 1);
  EXPECT_LE(fake.engine->mostLiving, 5);
}

TEST_F(PoolAhead, EveryChangeOfAFolderHasItAskedForAnew) {
  using Change = std::function<void(AbstractConnection&)>;
  const auto handle = temporaryFile("content");
  const std::vector<Change> changes = {
      [](AbstractConnection& c) { EXPECT_TRUE(c.createFolderAtPath("/d/x", nullptr)); },
      [](AbstractConnection& c) { EXPECT_TRUE(c.createSymbolicLinkAtPath("/d/x", "y", nullptr)); },
      [](AbstractConnection& c) { EXPECT_TRUE(c.deleteItemAtPath("/d/file", false, nullptr)); },
      [](AbstractConnection& c) { EXPECT_TRUE(c.moveItemFromPath("/d/file", false, "/file", nullptr)); },
      [](AbstractConnection& c) { EXPECT_TRUE(c.moveItemFromPath("/file", false, "/d/file", nullptr)); },
      [](AbstractConnection& c) { EXPECT_TRUE(c.changeAttributes({}, "/d/file", nullptr)); },
      [&](AbstractConnection& c) {
        EXPECT_TRUE(c.uploadFileHandle(*handle, "file", "/d/file", 0, nullptr, nullptr));
      },
      [](AbstractConnection& c) {
        NoBytes nothing;
        EXPECT_TRUE(c.streamBytesWithFilename("file", "/d/file", nothing, nullptr));
      },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    FakePool one(fake.engine);
    {
      const WatchedLock lock(condition);
      listed.clear();
    }
    one.with([&](AbstractConnection& connection) {
      // The first session is the walk's own.
      fake.engine->made = 0;
      walkToTheThird(connection);
      ASSERT_TRUE(waitUntilListed(6));
      EXPECT_EQ(listingsOf("/d"), 1);
      changes[i](connection);
      EXPECT_EQ(list(connection, "/d"), 1u);
    });
    EXPECT_EQ(listingsOf("/d"), 2) << "change " << i;
    // Nothing of it is listed any more when the next one begins.
    one.pool->shutDown();
    one.pool.reset();
  }
}

TEST_F(PoolAhead, ANewFileThatWasPutOffIsInTheListing) {
  fake.engine->putsOff = true;
  fake.engine->onCheckNewFile = [](FakeSession&, const std::string&, bool* mayWait, NSErrorRef*) {
    *mayWait = true;
    return true;
  };
  std::atomic<int> made{0};
  fake.engine->onMake = [&made](FakeSession&, const std::string&, NSErrorRef*) { return ++made == 1; };
  const auto handle = temporaryFile();
  fake.with([&](AbstractConnection& connection) {
    walkToTheThird(connection);
    ASSERT_TRUE(waitUntilListed(6));
    connection.setPutsOffNewFiles(true);
    ASSERT_TRUE(connection.uploadFileHandle(*handle, "new", "/d/new", 0, nullptr, nullptr));
    EXPECT_EQ(made, 0);
    EXPECT_EQ(list(connection, "/d"), 1u);
    EXPECT_EQ(made, 1);
  });
  EXPECT_EQ(listingsOf("/d"), 2);
}

TEST_F(PoolAhead, NothingIsListedAheadWhereSessionsAreFew) {
  fake.engine->cap = 2;
  FakePool small(fake.engine);
  small.with([](AbstractConnection& connection) {
    walkToTheThird(connection);
    EXPECT_EQ(aheadOf(connection), 0u);
  });
  small.pool->shutDown();
}

// A login costs several round trips: one that came too late for its folder is good for the next.
TEST_F(PoolAhead, ASessionThatCameTooLateStays) {
  fake.engine->cap = 4;
  FakePool small(fake.engine);
  fake.engine->onLogIn = [this](FakeSession& session, NSErrorRef*) {
    if (session.number > 1) fake.engine->gate.pass();
    return true;
  };
  small.with([this](AbstractConnection& connection) {
    walkToTheThird(connection);
    ASSERT_TRUE(fake.engine->gate.waitUntilEntered(2));
    for (const char* folder : {"/d", "/e"}) EXPECT_EQ(list(connection, folder), 1u);
  });
  fake.engine->gate.open();
  // All that there may be: the walk's own, the two, and one more.
  Gate holding;
  std::vector<std::thread> holders;
  for (int i = 0; i < 4; ++i) {
    holders.emplace_back([&small, &holding] {
      const auto connection = small.pool->acquireConnection();
      EXPECT_TRUE(connection->connect(nullptr));
      holding.pass();
      small.pool->releaseConnection(connection);
    });
  }
  EXPECT_TRUE(holding.waitUntilEntered(4));
  EXPECT_EQ(fake.engine->made, 4);
  holding.open();
  for (std::thread& holder : holders) holder.join();
  small.pool->shutDown();
}

TEST_F(PoolAhead, WhoWantsToKnowWhatIsThereNowAsksTheServer) {
  fake.with([this](AbstractConnection& connection) {
    walkToTheThird(connection);
    ASSERT_TRUE(waitUntilListed(6));
    connection.setTakesAhead(false);
    EXPECT_EQ(list(connection, "/d"), 1u);
  });
  EXPECT_EQ(listingsOf("/d"), 2);
}

TEST_F(PoolAhead, AnEngineWithWaysOfItsOwnIsLeftToThem) {
  fake.engine->ahead = false;
  fake.with([](AbstractConnection& connection) {
    walkToTheThird(connection);
    EXPECT_EQ(aheadOf(connection), 0u);
  });
}

TEST_F(PoolAhead, ASessionThatIsLostMeanwhileIsNobodysFailure) {
  fake.with([this](AbstractConnection& connection) {
    hangs = true;
    walkToTheThird(connection);
    ASSERT_TRUE(fake.engine->gate.waitUntilEntered(2));
    fake.engine->gate.open();
    EXPECT_EQ(list(connection, "/d"), 1u);
  });
}

TEST_F(PoolAhead, ThePoolMayGoWhileANewFileIsBeingMade) {
  fake.engine->putsOff = true;
  fake.engine->onCheckNewFile = [](FakeSession&, const std::string&, bool* mayWait, NSErrorRef*) {
    *mayWait = true;
    return true;
  };
  fake.engine->onMake = [this](FakeSession& session, const std::string&, NSErrorRef* error) {
    fake.engine->gate.pass([&session] { return session.isInterrupted(); });
    return failWith(kQuarnKitConnectionLost, error);
  };
  const auto handle = temporaryFile();
  fake.with([&](AbstractConnection& connection) {
    connection.setPutsOffNewFiles(true);
    EXPECT_TRUE(connection.uploadFileHandle(*handle, "new", "/d/new", 0, nullptr, nullptr));
  });
  clock.waitForSleepers(1);
  clock.advance(1);
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  fake.pool.reset();
  EXPECT_TRUE(fake.engine->waitUntilLiving(0));
}

TEST_F(PoolAhead, TheEndOfThePoolEndsWhatIsBeingListed) {
  fake.with([this](AbstractConnection& connection) {
    hangs = true;
    walkToTheThird(connection);
    ASSERT_TRUE(fake.engine->gate.waitUntilEntered(2));
  });
  fake.pool->shutDown();
  fake.pool.reset();
  EXPECT_EQ(listings(), 4u);
}

}  // namespace
}  // namespace ombra
