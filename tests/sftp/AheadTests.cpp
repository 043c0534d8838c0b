// What is opened ahead of a program that walks through a tree.
#include <fmt/format.h>

#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"
#include "tests/support/ManualClock.h"

namespace ombra::test {
namespace {

std::string folderAt(int index) { return fmt::format("/tree/d{:02}", index); }
std::string fileAt(int index) { return fmt::format("/files/f{:02}", index); }

class SFTPAheadTest : public SessionFixture {
 protected:
  static constexpr int kCount = 40;

  void SetUp() override {
    server.addFolder("/tree");
    server.addFolder("/files");
    for (int i = 0; i < kCount; ++i) {
      server.addFolder(folderAt(i));
      server.addFile(folderAt(i) + "/in", "");
      server.addFile(fileAt(i), contentOf(i));
    }
    logIn();
    server.batch = SIZE_MAX;
  }

  static std::string contentOf(int index) { return pattern(500, static_cast<unsigned>(index) + 1); }

  std::vector<std::string> list(const std::string& path) {
    std::vector<RemoteEntry> entries;
    error = nullptr;
    EXPECT_TRUE(session->list(path, &entries, &error)) << path;
    std::vector<std::string> names;
    for (const RemoteEntry& entry : entries) names.push_back(entry.name);
    return names;
  }
  std::string read(const std::string& path) {
    const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
    error = nullptr;
    EXPECT_TRUE(session->download(path, *local, 0, nullptr, control, &error)) << path;
    return readLocalFile(*local);
  }
  void walkFolders(int from, int to) {
    for (int i = from; i < to; ++i) EXPECT_EQ(list(folderAt(i)), std::vector<std::string>{"in"});
  }
  void readFiles(int from, int to) {
    for (int i = from; i < to; ++i) EXPECT_EQ(read(fileAt(i)), contentOf(i));
  }
  // Far enough for the session to expect more of the same.
  void beginWalk() {
    list("/tree");
    walkFolders(0, 6);
  }
  void beginReading() {
    list("/files");
    readFiles(0, 6);
  }
  template <typename Work>
  size_t roundTrips(Work work) {
    const size_t before = peer->waits();
    work();
    return peer->waits() - before;
  }
  size_t reads() const { return peer->countOf(kSFTPRead); }
  size_t opens() const { return peer->countOf(kSFTPOpendir) + peer->countOf(kSFTPOpen); }
  // So long that what was read ahead is too old to be taken, and what was opened is not.
  void letContentGrowOld() { clock.advance(2 * SFTPAhead::kMostSecondsOfContent); }

  ManualClock clock;
};

TEST_F(SFTPAheadTest, AFolderOnTheWayOfAWalkTakesOneRoundTrip) {
  beginWalk();
  EXPECT_EQ(roundTrips([&] { walkFolders(6, 30); }), 24u);
}

TEST_F(SFTPAheadTest, SmallFilesThatAreReadInTheirTurnWaitForNoRoundTripOfTheirOwn) {
  beginReading();
  EXPECT_EQ(roundTrips([&] { readFiles(6, 30); }), 3u);
}

TEST_F(SFTPAheadTest, ALargerFileThatIsReadInItsTurnTakesOneRoundTrip) {
  for (int i = 0; i < kCount; ++i) server.addFile(fileAt(i), pattern(SFTPAhead::kMostBytesOfOne + 1));
  list("/files");
  for (int i = 0; i < 6; ++i) read(fileAt(i));
  const size_t before = reads();
  EXPECT_EQ(roundTrips([&] {
              for (int i = 6; i < 30; ++i) read(fileAt(i));
            }),
            24u);
  EXPECT_EQ(reads() - before, 2u * 24) << "none of them ahead";
}

TEST_F(SFTPAheadTest, FilesThatAreReadInTheReverseOrderAreExpectedToo) {
  list("/files");
  const auto readDown = [&](int from, int to) {
    for (int i = from; i > to; --i) EXPECT_EQ(read(fileAt(i)), contentOf(i));
  };
  readDown(39, 33);
  EXPECT_EQ(roundTrips([&] { readDown(33, 9); }), 3u);
}

TEST_F(SFTPAheadTest, AWalkGoesOnInTheFoldersBelow) {
  for (int i = 0; i < 4; ++i) {
    for (int k = 0; k < 3; ++k) server.addFolder(folderAt(i + 10) + fmt::format("/x{}", k));
  }
  beginWalk();
  walkFolders(6, 10);
  EXPECT_EQ(roundTrips([&] {
              for (int i = 10; i < 14; ++i) {
                EXPECT_EQ(list(folderAt(i)).size(), 4u);
                for (int k = 0; k < 3; ++k) EXPECT_TRUE(list(folderAt(i) + fmt::format("/x{}", k)).empty());
              }
            }),
            20u)
      << "in each one to wait for the first of what was opened, then one for each";
}

TEST_F(SFTPAheadTest, TheFilesOfTheNextFolderAreExpectedToo) {
  server.addFolder("/more");
  for (int i = 0; i < 4; ++i) server.addFile(fmt::format("/more/g{}", i), "x");
  list("/files");
  readFiles(0, kCount);
  list("/more");
  EXPECT_EQ(roundTrips([&] {
              for (int i = 0; i < 4; ++i) EXPECT_EQ(read(fmt::format("/more/g{}", i)), "x");
            }),
            3u)
      << "one to wait for what was opened, one for the first, one for the others";
}

TEST_F(SFTPAheadTest, OfAListedFileNoMoreIsAskedForThanItHolds) {
  server.addFile("/files/f00", pattern(40000));
  server.addFile("/files/f01", pattern(65536));
  list("/files");
  const std::pair<int, size_t> table[] = {{0, 2}, {1, 3}, {2, 1}};
  for (const auto& [index, reads] : table) {
    const size_t before = peer->countOf(kSFTPRead);
    read(fileAt(index));
    EXPECT_EQ(peer->countOf(kSFTPRead) - before, reads) << index;
  }
}

TEST_F(SFTPAheadTest, AFileThatIsLongerOrShorterThanListedIsReadWhole) {
  list("/files");
  for (const size_t length : {0, 1, 32768, 32769, 200000}) {
    server.addFile(fileAt(0), pattern(length));
    EXPECT_EQ(read(fileAt(0)), pattern(length)) << length;
  }
}

TEST_F(SFTPAheadTest, FilesThatHaveChangedSinceTheyWereListedAreReadWholeInTheirTurn) {
  list("/files");
  std::map<int, std::string> changed = {{10, ""}, {15, "x"}, {20, pattern(501)}, {25, pattern(200000)}};
  for (const auto& [index, content] : changed) server.addFile(fileAt(index), content);
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(read(fileAt(i)), changed.contains(i) ? changed[i] : contentOf(i)) << i;
  }
}

TEST_F(SFTPAheadTest, EmptyFilesAreReadInTheirTurn) {
  for (int i = 0; i < kCount; ++i) server.addFile(fileAt(i), "");
  list("/files");
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(read(fileAt(i)), "");
}

TEST_F(SFTPAheadTest, AFileThatIsLongerThanItsAttributesTellIsReadToItsEnd) {
  server.addFile(fileAt(20), "");
  list("/files");
  server.before = [&](const PeerRequest& request) {
    // As below /proc: after the attributes, which told of no content.
    if (request.type == kSFTPRead && request.body.ends_with(u32(1))) {
      server.addFile(fileAt(20), pattern(70000));
    }
  };
  readFiles(0, 20);
  EXPECT_EQ(read(fileAt(20)), pattern(70000));
  server.before = nullptr;
}

TEST_F(SFTPAheadTest, ShortRepliesToWhatIsReadAheadAreCompleted) {
  server.mostPerRead = 100;
  list("/files");
  readFiles(0, kCount);
}

TEST_F(SFTPAheadTest, AnInterruptedDownloadGoesOnWhereItWasInTheMiddleOfAWalk) {
  beginReading();
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch, contentOf(7).substr(0, 100));
  std::string version = "1000:500";
  ASSERT_TRUE(session->download(fileAt(7), *local, 100, &version, control, &error));
  EXPECT_EQ(readLocalFile(*local), contentOf(7));
  version = "999:500";
  const auto other = makeLocalFile(NSFileHandle::Kind::kScratch, "x");
  EXPECT_FALSE(session->download(fileAt(8), *other, 1, &version, control, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitItemChanged);
}

TEST_F(SFTPAheadTest, WhatIsReadAheadIsOfTheVersionThatIsTold) {
  beginReading();
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
  std::string version;
  ASSERT_TRUE(session->download(fileAt(6), *local, 0, &version, control, &error));
  EXPECT_EQ(version, "1000:500");
  version = "999:500";
  EXPECT_FALSE(session->download(fileAt(7), *local, 0, &version, control, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitItemChanged);
}

TEST_F(SFTPAheadTest, ContentIsTakenOnlyForAMoment) {
  for (const double age : {0.9, 1.1}) {
    list("/files");
    readFiles(0, 10);
    clock.advance(age * SFTPAhead::kMostSecondsOfContent);
    const bool isAskedAnew = roundTrips([&] { readFiles(10, 11); }) > 0;
    EXPECT_EQ(isAskedAnew, age > 1.0) << age;
    session->closeOpenedAhead();
  }
}

TEST_F(SFTPAheadTest, ContentThatOneOfTheSessionsHasWrittenSinceIsAskedForAnew) {
  beginReading();
  const std::string content = pattern(500, 99);
  const auto changed = makeLocalFile(NSFileHandle::Kind::kScratch, content);
  changed->noteWritten({0, content.size()});
  ASSERT_TRUE(session->upload(*changed, fileAt(7), 0, control, &error));
  // Same length, same date.
  EXPECT_EQ(read(fileAt(7)), content);
}

TEST_F(SFTPAheadTest, ContentThatWasUnderWayWhenItsFileWasClosedIsAskedForAnew) {
  list("/files");
  const std::string content = pattern(500, 99);
  const auto changed = makeLocalFile(NSFileHandle::Kind::kScratch, content);
  changed->noteWritten({0, content.size()});
  control.isEarly = true;
  ASSERT_TRUE(session->upload(*changed, fileAt(7), 0, control, &error));
  readFiles(0, 6);
  session->becameIdle();
  EXPECT_EQ(read(fileAt(7)), content);
}

TEST_F(SFTPAheadTest, ReadsNoMoreThanAFewAhead) {
  list("/files");
  for (int i = 0; i < kCount; ++i) {
    readFiles(i, i + 1);
    EXPECT_LE(reads(), static_cast<size_t>(i) + 1 + SFTPAhead::kMostRead);
  }
  EXPECT_EQ(reads(), size_t{kCount}) << "none of them twice";
}

TEST_F(SFTPAheadTest, ForASlowReaderLittleIsReadThatGrowsOld) {
  list("/files");
  readFiles(0, 8);
  const size_t before = reads();
  for (int i = 8; i < kCount; ++i) {
    readFiles(i, i + 1);
    letContentGrowOld();
  }
  EXPECT_LE(reads() - before, size_t{kCount} - 8 + SFTPAhead::kMostRead);
}

TEST_F(SFTPAheadTest, NothingIsOpenedForSomebodyWhoLooksAround) {
  list("/tree");
  list(folderAt(0));
  list(folderAt(1));
  EXPECT_EQ(opens(), 3u);
}

TEST_F(SFTPAheadTest, NothingIsOpenedForSomebodyWhoJumpsAbout) {
  list("/tree");
  for (const int i : {0, 30, 3, 38, 10}) list(folderAt(i));
  EXPECT_EQ(opens(), 6u);
}

TEST_F(SFTPAheadTest, OpensNoMoreThanAFewAhead) {
  beginWalk();
  beginReading();
  EXPECT_LE(opens(), 2u + 6u + 6u + SFTPAhead::kMostFolders + SFTPAhead::kMostFiles);
  EXPECT_LE(server.openHandles(), SFTPAhead::kMostFolders + SFTPAhead::kMostFiles);
}

TEST_F(SFTPAheadTest, OpensNeitherLinksNorWhatIsNoPlainFile) {
  server.addFolder("/odd");
  for (int i = 0; i < 8; ++i) server.addFile(fmt::format("/odd/a{}", i), "x");
  server.addSpecial("/odd/pipe", 0010644);
  server.addLink("/odd/link", "/files/f00");
  list("/odd");
  for (int i = 0; i < 8; ++i) read(fmt::format("/odd/a{}", i));
  for (const PeerRequest& request : peer->requests()) {
    if (request.type != kSFTPOpen) continue;
    EXPECT_EQ(request.body.find("pipe"), std::string::npos);
    EXPECT_EQ(request.body.find("link"), std::string::npos);
  }
}

TEST_F(SFTPAheadTest, ShowsWhatIsInTheFolderWhenItIsAskedFor) {
  beginWalk();
  server.addFile(folderAt(7) + "/late", "");
  EXPECT_EQ(list(folderAt(7)), (std::vector<std::string>{"in", "late"}));
}

TEST_F(SFTPAheadTest, AFolderThatHasChangedIsOpenedAnew) {
  beginWalk();
  server.setDate(folderAt(7), 2000);
  const size_t before = peer->countOf(kSFTPOpendir);
  EXPECT_EQ(list(folderAt(7)), std::vector<std::string>{"in"});
  EXPECT_GT(peer->countOf(kSFTPOpendir), before);
}

TEST_F(SFTPAheadTest, AFolderThatIsGoneIsNotShown) {
  beginWalk();
  server.remove(folderAt(7) + "/in");
  server.remove(folderAt(7));
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list(folderAt(7), &entries, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitNoSuchItem);
  EXPECT_TRUE(entries.empty());
}

TEST_F(SFTPAheadTest, AFileThatWasReplacedIsReadAnew) {
  beginReading();
  // The handle still stands for the old one, as with every system that counts references.
  server.replace(fileAt(7), "new content", 2000);
  letContentGrowOld();
  EXPECT_EQ(read(fileAt(7)), "new content");
}

TEST_F(SFTPAheadTest, AFileThatIsGoneIsNotRead) {
  beginReading();
  server.replace(fileAt(7), "", 2000);
  server.remove(fileAt(7));
  letContentGrowOld();
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
  EXPECT_FALSE(session->download(fileAt(7), *local, 0, nullptr, control, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitNoSuchItem);
  EXPECT_EQ(local->fileLength(), 0u);
}

TEST_F(SFTPAheadTest, ContentThatHasChangedIsTheOneThatIsRead) {
  beginReading();
  server.addFile(fileAt(7), "changed in place", 1000);
  letContentGrowOld();
  EXPECT_EQ(read(fileAt(7)), "changed in place");
}

TEST_F(SFTPAheadTest, WhatChangedJustNowIsNotOpened) {
  const auto now = static_cast<uint32_t>(NSDate::date().nanosecondsSince1970() / 1000000000);
  for (int i = 0; i < kCount; ++i) server.setDate(folderAt(i), now);
  beginWalk();
  EXPECT_EQ(opens(), 7u) << "a second change within the second would not show in the date";
}

TEST_F(SFTPAheadTest, HandlesThatTheServerHasLetGoOfCostNothingButTime) {
  beginWalk();
  beginReading();
  server.forgetHandles();
  walkFolders(6, 20);
  readFiles(6, 30);
}

TEST_F(SFTPAheadTest, AFileWhoseHandleIsGoneMayHaveChangedMeanwhile) {
  beginReading();
  server.forgetHandles();
  for (int i = 6; i < 30; ++i) {
    server.setDate(fileAt(i), 2000);
    const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
    std::string version;
    ASSERT_TRUE(session->download(fileAt(i), *local, 0, &version, control, &error)) << error->description();
    EXPECT_EQ(readLocalFile(*local), contentOf(i));
    EXPECT_TRUE(version == "1000:500" || version == "2000:500") << version;
  }
}

TEST_F(SFTPAheadTest, ARefusedGuessIsNoError) {
  for (int i = 6; i < 10; ++i) {
    server.forbidden.insert(folderAt(i));
    server.unreadable.insert(fileAt(i));
  }
  beginWalk();
  beginReading();
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list(folderAt(6), &entries, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitListingNotPermitted);
  walkFolders(10, 14);
  readFiles(10, 14);
}

TEST_F(SFTPAheadTest, WhatIsRemovedOrMovedIsClosedBefore) {
  beginWalk();
  beginReading();
  const size_t handles = server.openHandles();
  server.before = [&](const PeerRequest& request) {
    const bool isChange = request.type == kSFTPRemove || request.type == kSFTPExtended;
    if (isChange) {
      EXPECT_LT(server.openHandles(), handles);
    }
  };
  ASSERT_TRUE(session->remove(fileAt(8), false, &error));
  ASSERT_TRUE(session->move(folderAt(8), true, "/tree/other", &error));
  server.before = nullptr;
}

TEST_F(SFTPAheadTest, AFolderThatOneOfTheSessionsHasReplacedIsOpenedAnew) {
  beginWalk();
  ASSERT_TRUE(session->move(folderAt(7), true, "/tree/other", &error));
  ASSERT_TRUE(session->createFolder(folderAt(7), &error));
  EXPECT_TRUE(list(folderAt(7)).empty());
}

TEST_F(SFTPAheadTest, KnowsOfChangesThroughOtherSessions) {
  const auto walks = std::make_shared<Walks>();
  std::vector<RemoteEntry> entries;
  walks->changed("/a");
  const uint64_t before = walks->changes();
  EXPECT_FALSE(walks->isAffected("/a", before));
  walks->changed("/a/b");
  EXPECT_TRUE(walks->isAffected("/a/b", before));
  EXPECT_TRUE(walks->isAffected("/a/b/c/d", before));
  EXPECT_TRUE(walks->isAffected("/a", before)) << "its listing";
  EXPECT_FALSE(walks->isAffected("/", before));
  EXPECT_FALSE(walks->isAffected("/a/c", before));
  EXPECT_FALSE(walks->isAffected("/a/b", walks->changes()));
  for (int i = 0; i < 1000; ++i) walks->changed(i % 2 == 0 ? "/elsewhere" : "/too");
  EXPECT_TRUE(walks->isAffected("/a/c", before)) << "too long ago to know";
}

TEST_F(SFTPAheadTest, AFileThatIsWrittenInManyPiecesIsOneChangeToWhoeverDidNotLook) {
  Walks walks;
  for (int i = 0; i < 1000; ++i) walks.changed("/a");
  const uint64_t before = walks.changes();
  EXPECT_EQ(before, 1u);
  walks.changed("/a");
  EXPECT_TRUE(walks.isAffected("/a", before));
}

TEST_F(SFTPAheadTest, AnIdleSessionKeepsNothingOpen) {
  beginWalk();
  beginReading();
  EXPECT_TRUE(session->hasOpenedAhead());
  session->closeOpenedAhead();
  EXPECT_FALSE(session->hasOpenedAhead());
  EXPECT_EQ(server.openHandles(), 0u);
}

TEST_F(SFTPAheadTest, WhatIsNotTakenForSecondsIsClosed) {
  beginWalk();
  EXPECT_GT(server.openHandles(), 0u);
  clock.advance(6.0);
  list("/files");
  list("/files");
  EXPECT_EQ(server.openHandles(), 0u);
}

TEST_F(SFTPAheadTest, AConnectionThatEndsIsTold) {
  beginWalk();
  server.before = [&](const PeerRequest&) { peer->hangUp(); };
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list(folderAt(6), &entries, &error));
  EXPECT_EQ(codeOf(error), kQuarnKitConnectionLost);
  server.before = nullptr;
}

TEST_F(SFTPAheadTest, ReadsWholeTreesHoweverRepliesAreCut) {
  TearDown();
  session.reset();
  server.batch = 1;
  logIn(1);
  list("/tree");
  walkFolders(0, kCount);
  list("/files");
  readFiles(0, kCount);
}

}  // namespace
}  // namespace ombra::test
