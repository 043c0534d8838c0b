// Which files are read before they are asked for, and when that is of use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "remote/FilesAhead.h"
#include "tests/remote/AskedAhead.h"
#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

bool never() { return false; }
bool always() { return true; }

class FilesAheadTest : public testing::Test {
 protected:
  FilesAheadTest() { asked.answer = "content"; }
  ~FilesAheadTest() override {
    asked.sessions.open();
    asked.server.open();
  }

  // A folder with files "a" to "h" was listed.
  void listFolder(const std::string& folder, uint64_t size = 7) {
    Walks::Listing listing;
    for (char name = 'a'; name <= 'h'; ++name) listing.add(std::string(1, name), Walks::Kind::kFile, 0, size);
    walks.listed(folder, std::move(listing));
    ahead->listed(folder, true);
  }
  // Somebody reads the file. True when it had been read for him.
  bool read(const std::string& path, double seconds = 0.1) {
    const std::optional<std::string> known = ahead->take(path, never);
    ahead->wasRead(path, 7, known ? std::nullopt : std::optional(seconds));
    return known.has_value();
  }
  void readThree(const std::string& folder = "", double seconds = 0.1) {
    for (const char* name : {"/a", "/b", "/c"}) EXPECT_FALSE(read(folder + name, seconds));
  }
  ManualClock clock;
  AskedAhead<std::string> asked;
  Walks walks;
  std::unique_ptr<FilesAhead> ahead = std::make_unique<FilesAhead>(
      walks, [this] { return asked.room.load(); },
      [this](auto& request, std::string* content) { return asked.fetch(request, content); });
};

TEST_F(FilesAheadTest, AWalkFindsItsNextFilesRead) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_THAT(asked.begun(), UnorderedElementsAre("/d", "/e"));
  EXPECT_EQ(ahead->take("/d", never), "content");
}

TEST_F(FilesAheadTest, AServerNearbyIsReadFromAheadToo) {
  listFolder("/");
  readThree("", 0.001);
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_EQ(ahead->take("/d", never), "content");
}

TEST_F(FilesAheadTest, LongFilesAreLeftAlone) {
  listFolder("/", FilesAhead::kMostBytes + 1);
  readThree();
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(FilesAheadTest, HowLongALongFileTookSaysNothingOfTheWay) {
  listFolder("/");
  for (const char* path : {"/a", "/b", "/c"}) {
    EXPECT_FALSE(ahead->take(path, never).has_value());
    ahead->wasRead(path, FilesAhead::kMostBytes + 1, 0.1);
  }
  EXPECT_EQ(ahead->count(), 0u);
}

TEST_F(FilesAheadTest, AWalkThatComesToANewFolderFindsItsFirstFilesRead) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  for (const char* path : {"/d", "/e"}) EXPECT_TRUE(ahead->take(path, never).has_value());
  ahead->wasRead("/e", 7, 0.1);
  ASSERT_TRUE(asked.waitUntilEnded(4));
  for (const char* path : {"/f", "/g"}) EXPECT_TRUE(ahead->take(path, never).has_value());
  ahead->wasRead("/g", 7, 0.1);
  ASSERT_TRUE(asked.waitUntilEnded(5));
  listFolder("/next");
  ASSERT_TRUE(asked.waitUntilEnded(6));
  EXPECT_THAT(asked.begun(), Contains("/next/a"));
}

// Whoever sees the new length and date must not find the old content beneath them.
TEST_F(FilesAheadTest, WhatWasReadBeforeItsFolderWasListedAgainIsReadAnew) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  asked.room = 0;
  Walks::Listing again;
  again.add("d", Walks::Kind::kFile, 0, 8);
  walks.listed("/", std::move(again));
  ahead->listed("/", false);
  EXPECT_EQ(ahead->count(), 0u);
  EXPECT_FALSE(ahead->take("/d", never).has_value());
}

TEST_F(FilesAheadTest, WhatWasReadBeforeTheFileWasLookedAtIsReadAnew) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  ahead->lookedAt("/d");
  EXPECT_FALSE(ahead->take("/d", never).has_value());
  EXPECT_TRUE(ahead->take("/e", never).has_value());
}

// Some servers have more than one name for a file.
TEST_F(FilesAheadTest, AfterAnyChangeFilesAreReadAnew) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  walks.changed("/elsewhere");
  EXPECT_FALSE(ahead->take("/d", never).has_value());
}

TEST_F(FilesAheadTest, NothingIsReadOfAFolderThatIsListedAgainAndAgain) {
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.waitUntilEnded(2));
  for (int i = 0; i < 3; ++i) ahead->listed("/", false);
  EXPECT_EQ(ahead->count(), 0u);
  EXPECT_EQ(asked.begun().size(), 2u);
}

TEST_F(FilesAheadTest, AWalkGoesOnWhereItWasWhenItsFolderIsListedAgain) {
  const auto list = [this] {
    Walks::Listing listing;
    for (int i = 1; i <= 8; ++i)
      listing.add("a file with a rather long name " + std::to_string(i), Walks::Kind::kFile, 0, 7);
    walks.listed("/", std::move(listing));
  };
  const std::string name = "/a file with a rather long name ";
  list();
  for (const char* number : {"1", "2", "3", "4"}) (void)walks.reached(name + number, Walks::Kind::kFile);
  list();
  std::vector<std::string> next;
  for (const Walks::Item& file : walks.next(name + "4", Walks::Kind::kFile, 8)) next.push_back(file.path);
  EXPECT_THAT(next, ElementsAre(name + "5", name + "6", name + "7", name + "8"));
}

// Of a walk that picks some of the files only, it is those in front that may be wanted.
TEST_F(FilesAheadTest, WhatWasPassedOverIsNotRead) {
  listFolder("/");
  for (const char* path : {"/a", "/c", "/e"}) EXPECT_FALSE(read(path));
  ASSERT_TRUE(asked.waitUntilEnded(2));
  EXPECT_THAT(asked.begun(), UnorderedElementsAre("/f", "/g"));
}

TEST_F(FilesAheadTest, WhoeverAsksWaitsForTheFileThatIsBeingRead) {
  asked.isSlow = true;
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  std::promise<void> waits;
  auto reader = std::async(std::launch::async, [&] {
    return ahead->take("/d", [&, isFirst = true]() mutable {
      if (std::exchange(isFirst, false)) waits.set_value();
      return false;
    });
  });
  waits.get_future().wait();
  asked.server.open();
  EXPECT_EQ(reader.get(), "content");
}

TEST_F(FilesAheadTest, WhoeverNoLongerWantsAFileStopsWaitingForIt) {
  asked.isSlow = true;
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  EXPECT_FALSE(ahead->take("/d", always).has_value()) << "at once";
  std::atomic<bool> stops{false};
  std::promise<void> waits;
  auto reader = std::async(std::launch::async, [&] {
    return ahead->take("/e", [&, isFirst = true]() mutable {
      if (std::exchange(isFirst, false)) waits.set_value();
      return stops.load();
    });
  });
  waits.get_future().wait();
  stops = true;
  ahead->wake();
  EXPECT_FALSE(reader.get().has_value());
  asked.server.open();
}

TEST_F(FilesAheadTest, MoreIsReadWhereTheWalkHadToWait) {
  asked.isSlow = true;
  listFolder("/");
  readThree();
  ASSERT_TRUE(asked.server.waitUntilEntered(2));
  EXPECT_FALSE(ahead->take("/d", always).has_value());
  ahead->wasRead("/d", 7, 0.1);
  ASSERT_TRUE(asked.server.waitUntilEntered(4));
  EXPECT_THAT(asked.begun(), UnorderedElementsAre("/d", "/e", "/f", "/g"));
}

// A pool whose server holds files "/a" to "/h".
class PoolFilesAhead : public testing::Test {
 protected:
  PoolFilesAhead() {
    fake.engine->ahead = true;
    fake.engine->onList = [](FakeSession&, const std::string&, std::vector<RemoteEntry>* entries,
                             NSErrorRef*) {
      for (char name = 'a'; name <= 'h'; ++name) {
        RemoteEntry entry;
        entry.name = std::string(1, name);
        entry.attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1);
        entry.attributes.fileSize = 7;
        entries->push_back(entry);
      }
      return true;
    };
    fake.engine->onDownload = [this](FakeSession& session, NSFileHandle& to, uint64_t offset, std::string*,
                                     TransferControl& control, NSErrorRef* error) {
      if (session.number == 1) clock.advance(0.02);
      if (hangs && session.number > 1) {
        fake.engine->gate.pass([&] { return session.isInterrupted() || control.shouldCancel(); });
        ++(control.shouldCancel() ? brokenOff : interrupted);
        const WatchedLock lock(condition);
        condition.broadcast();
        return failWith(kQuarnKitConnectionLost, error);
      }
      const std::string content = session.number > 1 ? contentAhead : "content";
      EXPECT_TRUE(to.writeAll(content.data() + offset, content.size() - offset, offset));
      control.progress(content.size());
      ++(session.number > 1 ? readAhead : readByItself);
      const WatchedLock lock(condition);
      condition.broadcast();
      return !control.shouldCancel() || failWith(kQuarnKitCancelled, error);
    };
  }
  ~PoolFilesAhead() override { fake.pool->shutDown(); }

  static std::optional<std::string> read(AbstractConnection& connection, const std::string& path) {
    const auto file = temporaryFile();
    uint64_t count = 0;
    if (!connection.downloadFileAtPath(path, *file, 0, &count, nullptr)) return std::nullopt;
    const std::string content = contentOf(*file);
    EXPECT_EQ(count, content.size());
    return content;
  }
  static void readThree(AbstractConnection& connection) {
    connection.setTakesAhead(true);
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    for (const char* path : {"/a", "/b", "/c"}) EXPECT_EQ(read(connection, path), "content");
  }
  bool waitUntilReadAhead(int count) { return waitUntil(readAhead, count); }
  bool waitUntilBrokenOff(int count) { return waitUntil(brokenOff, count); }
  bool waitUntil(const std::atomic<int>& counter, int count) {
    const WatchedLock lock(condition);
    while (counter < count) {
      if (!condition.waitFor("files that are read ahead")) return false;
    }
    return true;
  }

  ManualClock clock;
  WatchedCondition condition;
  std::atomic<int> readAhead{0};
  std::atomic<int> readByItself{0};
  std::atomic<int> brokenOff{0};
  std::atomic<int> interrupted{0};
  std::atomic<bool> hangs{false};
  std::string contentAhead = "ahead of it";
  FakePool fake;
};

TEST_F(PoolFilesAhead, ContentsOfSmallFilesComeFromFurtherSessions) {
  fake.with([this](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    EXPECT_EQ(read(connection, "/d"), "ahead of it");
    EXPECT_EQ(read(connection, "/e"), "ahead of it");
  });
  EXPECT_EQ(readByItself, 3);
}

TEST_F(PoolFilesAhead, ADownloadThatGoesOnInAFileIsNeverTakenFromThere) {
  fake.with([this](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    const auto file = temporaryFile("con");
    EXPECT_TRUE(connection.downloadFileAtPath("/d", *file, 3, nullptr, nullptr));
    EXPECT_EQ(contentOf(*file), "content");
  });
}

TEST_F(PoolFilesAhead, AFileThatHasGrownIsReadByWhoeverAsksForIt) {
  contentAhead = std::string(FilesAhead::kMostBytes + 1, 'x');
  fake.with([this](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    EXPECT_EQ(read(connection, "/d"), "content");
  });
}

TEST_F(PoolFilesAhead, ALookAtAFileHasItReadAnew) {
  fake.with([this](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    EXPECT_TRUE(connection.attributesOfItemAtPath("/d", nullptr, nullptr).has_value());
    EXPECT_EQ(read(connection, "/d"), "content");
  });
}

TEST_F(PoolFilesAhead, AnUploadHasTheFileReadAnew) {
  const auto handle = temporaryFile("new");
  fake.with([&](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    EXPECT_TRUE(connection.uploadFileHandle(*handle, "d", "/d", 0, nullptr, nullptr));
    EXPECT_EQ(read(connection, "/d"), "content");
  });
}

TEST_F(PoolFilesAhead, MovesAndRemovalsHaveTheFileReadAnew) {
  const std::vector<std::function<bool(AbstractConnection&)>> changes = {
      [](AbstractConnection& c) { return c.moveItemFromPath("/x", false, "/d", nullptr); },
      [](AbstractConnection& c) { return c.deleteItemAtPath("/d", false, nullptr); },
  };
  for (const auto& change : changes) {
    FakePool one(fake.engine);
    readAhead = 0;
    fake.engine->made = 0;
    one.with([&](AbstractConnection& connection) {
      readThree(connection);
      ASSERT_TRUE(waitUntilReadAhead(2));
      EXPECT_TRUE(change(connection));
      EXPECT_EQ(read(connection, "/d"), "content");
    });
    one.pool->shutDown();
    one.pool.reset();
  }
}

TEST_F(PoolFilesAhead, WhoIsToWriteReadsWhatTheServerHasNow) {
  fake.with([this](AbstractConnection& connection) {
    readThree(connection);
    ASSERT_TRUE(waitUntilReadAhead(2));
    connection.setTakesAhead(false);
    EXPECT_EQ(read(connection, "/d"), "content");
  });
}

TEST_F(PoolFilesAhead, WhatNobodyWantsAnyMoreIsBrokenOff) {
  fake.with([this](AbstractConnection& connection) {
    hangs = true;
    readThree(connection);
    ASSERT_TRUE(fake.engine->gate.waitUntilEntered(2));
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    // As an engine does that looks at its control from time to time.
    fake.engine->gate.poke();
    ASSERT_TRUE(waitUntilBrokenOff(2));
  });
}

TEST_F(PoolFilesAhead, AReaderWhoIsCancelledDoesNotWaitForWhatIsReadAhead) {
  fake.with([this](AbstractConnection& connection) {
    hangs = true;
    readThree(connection);
    ASSERT_TRUE(fake.engine->gate.waitUntilEntered(2));
    auto reader = std::async(std::launch::async, [&] {
      NSErrorRef error;
      const auto file = temporaryFile();
      EXPECT_FALSE(connection.downloadFileAtPath("/d", *file, 0, nullptr, &error));
      EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
    });
    // A mark that is set before the call begins counts for nothing.
    while (reader.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
      connection.setShouldCancel(true);
    fake.engine->gate.open();
  });
}

}  // namespace
}  // namespace ombra
