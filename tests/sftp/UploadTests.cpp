// Uploads in place and whole: extents, holes, the handle that stays open.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPUpload : public SessionFixture {
 protected:
  // A scratch file whose every byte is still unsent.
  void makeScratch(std::string_view content) {
    local = makeLocalFile(NSFileHandle::Kind::kScratch, content);
    if (!content.empty()) local->noteWritten({0, content.size()});
  }
  void writeLocally(std::string_view bytes, uint64_t offset) {
    ASSERT_TRUE(local->writeAll(bytes.data(), bytes.size(), offset));
    local->noteWritten({offset, offset + bytes.size()});
  }
  bool upload(uint64_t offset) {
    error = nullptr;
    return session->upload(*local, "/f", offset, control, &error);
  }
  size_t writes() const { return peer->countOf(kSFTPWrite); }
  // Content bytes that travelled.
  size_t written() const {
    size_t total = 0;
    for (const PeerRequest& request : peer->requests()) {
      if (request.type == kSFTPWrite) total += request.body.size() - 4 - 2 - 8 - 4;
    }
    return total;
  }

  std::unique_ptr<NSFileHandle> local;
};

TEST_F(SFTPUpload, SendsTheWholeContentWhateverItsLength) {
  for (const size_t length : {0, 1, 32768, 32769, 1000003}) {
    const std::string content = pattern(length);
    server.addFile("/f", "old and quite a bit longer than some of the new ones");
    logIn();
    makeScratch(content);
    ASSERT_TRUE(upload(0)) << error->description();
    EXPECT_EQ(content, server.content("/f")) << length;
    EXPECT_TRUE(local->unconfirmedExtents(0).empty()) << length;
    TearDown();
  }
}

TEST_F(SFTPUpload, SurvivesEveryCutOfTheBytesAndEveryOrderOfReplies) {
  const std::string content = pattern(100000);
  for (const size_t cut : {1, 2, 3, 5, 8, 13}) {
    logIn(cut);
    server.batch = cut == 13 ? 3 : 1;
    makeScratch(content);
    ASSERT_TRUE(upload(0)) << cut;
    EXPECT_EQ(content, server.content("/f")) << cut;
    server.batch = 1;
    TearDown();
  }
}

TEST_F(SFTPUpload, CreatesTheFileAndReportsProgressUpToItsLength) {
  logIn();
  makeScratch(pattern(100000));
  ASSERT_TRUE(upload(0));
  EXPECT_TRUE(std::is_sorted(control.reached.begin(), control.reached.end()));
  EXPECT_EQ(100000u, control.reached.back());
}

TEST_F(SFTPUpload, SendsHolesAsHoles) {
  logIn();
  local = makeLocalFile(NSFileHandle::Kind::kFile);
  constexpr uint64_t kEnd = 64 << 20;
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), kEnd));
  ASSERT_TRUE(local->writeAll("begin", 5, 0));
  ASSERT_TRUE(local->writeAll("middle", 6, 32 << 20));
  ASSERT_TRUE(upload(0)) << error->description();
  const std::string stored = server.content("/f");
  ASSERT_EQ(kEnd, stored.size());
  EXPECT_EQ("middle", stored.substr(32 << 20, 6));
  EXPECT_EQ(readLocalFile(*local), stored);
  EXPECT_LE(written(), 4u * 4096);
}

TEST_F(SFTPUpload, AFileThatIsAllHoleIsOnlyMadeLongEnough) {
  server.addFile("/f", "old");
  logIn();
  makeScratch("");
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 5000));
  ASSERT_TRUE(upload(0));
  EXPECT_EQ(std::string(5000, '\0'), server.content("/f"));
  EXPECT_EQ(0u, writes());
}

TEST_F(SFTPUpload, AnAppendedWriteCostsOneRoundTripWhileTheHandleIsOpen) {
  logIn();
  makeScratch("begin");
  ASSERT_TRUE(upload(0));
  server.batch = SIZE_MAX;
  for (int i = 0; i < 5; ++i) {
    const uint64_t end = local->fileLength();
    writeLocally(pattern(100000, static_cast<unsigned>(i)), end);
    const size_t before = peer->waits();
    ASSERT_TRUE(upload(end)) << error->description();
    EXPECT_EQ(1u, peer->waits() - before) << i;
  }
  server.batch = 1;
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_EQ(1u, peer->countOf(kSFTPOpen));
  EXPECT_EQ(500005u, written());
}

TEST_F(SFTPUpload, FromAnOffsetSendsOnlyWhatIsNotConfirmed) {
  logIn();
  makeScratch(pattern(1000000));
  ASSERT_TRUE(upload(0));
  const size_t before = written();
  writeLocally("PAGE", 500000);
  ASSERT_TRUE(upload(500000));
  EXPECT_EQ(4u, written() - before);
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_TRUE(local->unconfirmedExtents(0).empty());
}

TEST_F(SFTPUpload, OfTheFirstPageSendsThatPageAlone) {
  logIn();
  makeScratch(pattern(1000000));
  ASSERT_TRUE(upload(0));
  session->becameIdle();
  const size_t before = written();
  writeLocally("PAGE", 0);
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPWrite) {
      EXPECT_EQ(1000000u, server.content("/f").size()) << "never cut meanwhile";
    }
  };
  ASSERT_TRUE(upload(0));
  EXPECT_EQ(4u, written() - before);
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPUpload, FromTheBeginningNeverLeavesTheServersFileLonger) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  for (const bool isFresh : {false, true}) {
    if (isFresh) {
      session->becameIdle();
      server.addFile("/f", pattern(2000));
      local->noteWritten({0, 10});
    } else {
      ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 600));
      local->noteTruncated(600);
    }
    ASSERT_TRUE(upload(0));
    EXPECT_EQ(600u, server.content("/f").size()) << isFresh;
  }
}

TEST_F(SFTPUpload, WhatWasCutAndGrewAgainIsZerosOnTheServerToo) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 100));
  local->noteTruncated(100);
  writeLocally("end", 900);
  for (const bool isFresh : {false, true}) {
    if (isFresh) session->becameIdle();
    ASSERT_TRUE(upload(900));
    EXPECT_EQ(readLocalFile(*local), server.content("/f")) << isFresh;
  }
}

TEST_F(SFTPUpload, EachAcknowledgementIsProgressOfTheFile) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  const uint64_t before = local->extents()->progress();
  writeLocally("AA", 10);
  ASSERT_TRUE(upload(10));
  EXPECT_GT(local->extents()->progress(), before);
}

TEST_F(SFTPUpload, FromAnOffsetLeavesWhatLiesBeforeItUnsent) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  writeLocally("AA", 10);
  writeLocally("BB", 500);
  ASSERT_TRUE(upload(400));
  EXPECT_EQ("BB", server.content("/f").substr(500, 2));
  EXPECT_NE("AA", server.content("/f").substr(10, 2));
  EXPECT_EQ((std::vector<FileExtent>{{10, 12}}), local->unconfirmedExtents(0));
}

TEST_F(SFTPUpload, OfAnOrdinaryFileFromAnOffsetSendsAllUpToTheEnd) {
  server.addFile("/f", std::string(100, 'o'));
  logIn();
  local = makeLocalFile(NSFileHandle::Kind::kFile, pattern(50));
  ASSERT_TRUE(upload(20));
  EXPECT_EQ(std::string(20, 'o') + pattern(50).substr(20) + std::string(50, 'o'), server.content("/f"))
      << "in place: what lies before and behind stays";
}

TEST_F(SFTPUpload, AFileThatGrewByTruncationGrowsOnTheServerToo) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(upload(0));
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 10));
  ASSERT_TRUE(upload(3));
  EXPECT_EQ(std::string("abc\0\0\0\0\0\0\0", 10), server.content("/f"));
}

TEST_F(SFTPUpload, WhatWasCutOffLocallyIsNotSent) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  writeLocally(pattern(1000, 2), 1000);
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 1500));
  ASSERT_TRUE(upload(1000)) << error->description();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPUpload, WhatSomeoneElseCutOffOnTheServerIsSentAgain) {
  logIn();
  makeScratch(pattern(200000));
  ASSERT_TRUE(upload(0));
  session->becameIdle();
  server.addFile("/f", pattern(200000).substr(0, 50000));
  writeLocally("tail", 200000);
  ASSERT_TRUE(upload(200000));
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPUpload, AFileThatIsGoneFromTheServerIsSentWhole) {
  logIn();
  makeScratch(pattern(200000));
  ASSERT_TRUE(upload(0));
  session->becameIdle();
  ASSERT_TRUE(session->remove("/f", false, &error));
  writeLocally("tail", 200000);
  ASSERT_TRUE(upload(200000)) << error->description();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPUpload, AHandleThatTheServerForgotIsOpenedAgain) {
  logIn();
  makeScratch(pattern(1000));
  ASSERT_TRUE(upload(0));
  // The next write is refused as on a handle that is no more; what comes after is not.
  server.refusals[kSFTPWrite] = {kSFTPStatusFailure, 0};
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPOpen) server.refusals.clear();
  };
  writeLocally("more", 1000);
  ASSERT_TRUE(upload(1000)) << error->description();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_EQ(2u, peer->countOf(kSFTPOpen));
}

TEST_F(SFTPUpload, TheHandleIsClosedWhenTheSessionBecomesIdle) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(upload(0));
  EXPECT_EQ(1u, server.openHandles());
  session->becameIdle();
  EXPECT_EQ(0u, server.openHandles());
  session->becameIdle();
  EXPECT_EQ(1u, peer->countOf(kSFTPClose));
}

TEST_F(SFTPUpload, TheHandleDoesNotSurviveAMoveOrARemovalOfItsPathOrAFolderAboveIt) {
  using Change = std::function<bool(SFTPSession&)>;
  const std::pair<const char*, Change> table[] = {
      {"move of the file", [](SFTPSession& on) { return on.move("/d/f", false, "/g", nullptr); }},
      {"move onto the file", [](SFTPSession& on) { return on.move("/other", false, "/d/f", nullptr); }},
      {"move of its folder", [](SFTPSession& on) { return on.move("/d", true, "/e", nullptr); }},
      {"removal", [](SFTPSession& on) { return on.remove("/d/f", false, nullptr); }},
  };
  for (const auto& [what, change] : table) {
    server = MemoryServer();
    server.addFolder("/d");
    server.addFile("/other", "");
    logIn();
    makeScratch("abc");
    ASSERT_TRUE(session->upload(*local, "/d/f", 0, control, &error));
    EXPECT_EQ(1u, server.openHandles()) << what;
    EXPECT_TRUE(change(*session)) << what;
    EXPECT_EQ(0u, server.openHandles()) << what;
    EXPECT_EQ(1u, peer->countOf(kSFTPClose)) << what;
  }
}

TEST_F(SFTPUpload, AnotherPathTakesTheHandlesPlace) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(session->upload(*local, "/f", 0, control, &error));
  ASSERT_TRUE(session->upload(*local, "/g", 0, control, &error));
  EXPECT_EQ(1u, server.openHandles());
  EXPECT_EQ("abc", server.content("/g"));
}

TEST_F(SFTPUpload, AFailureLeavesTheRestUnconfirmed) {
  logIn();
  makeScratch(pattern(10 * 32768));
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 3};
  ASSERT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_EQ((std::vector<FileExtent>{{3 * 32768, 10 * 32768}}), local->unconfirmedExtents(0));
  EXPECT_EQ(0u, server.openHandles()) << "nobody knows what a handle stands for after a failure";
  server.refusals.clear();
  ASSERT_TRUE(upload(1));
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPUpload, ConfirmsOnlyWhatTheServerHasAcknowledged) {
  logIn();
  makeScratch(pattern(10 * 32768));
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPWrite && peer->countOf(kSFTPWrite) == 4) peer->hangUp();
  };
  ASSERT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  const auto left = local->unconfirmedExtents(0);
  ASSERT_EQ(1u, left.size());
  EXPECT_EQ(10u * 32768, left[0].end);
}

TEST_F(SFTPUpload, ARefusedOneKnowsWhatOfThePiecesBehindTheRefusalWasStored) {
  logIn(13);
  makeScratch(pattern(10 * 32768));
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 3};
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPWrite && peer->countOf(kSFTPWrite) == 5) server.refusals.clear();
  };
  ASSERT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_EQ((std::vector<FileExtent>{{3 * 32768, 4 * 32768}}), local->unconfirmedExtents(0));
}

TEST_F(SFTPUpload, ARefusalWithoutAReasonOnAReadOnlyVolumeSaysSo) {
  server.refusals[kSFTPOpen] = {kSFTPStatusFailure, 0};
  server.isReadOnly = true;
  server.addFile("/f", "old");
  logIn();
  makeScratch("new");
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitReadOnly, codeOf(error));
}

TEST_F(SFTPUpload, ARefusalWithoutAReasonOnAFullVolumeIsOutOfSpace) {
  server.refusals[kSFTPWrite] = {kSFTPStatusFailure, 1};
  server.freeBytes = 0;
  logIn();
  makeScratch(pattern(100000));
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitOutOfSpace, codeOf(error));
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(kQuarnKitRefused, error->underlyingError()->code());
}

TEST_F(SFTPUpload, ToWhereNothingMayBeWrittenFails) {
  server.addFile("/f", "x");
  server.forbidden.insert("/f");
  logIn();
  makeScratch("abc");
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_EQ("x", server.content("/f"));
}

TEST_F(SFTPUpload, StopsSoonWhenCancelled) {
  logIn();
  makeScratch(pattern(20000000));
  control.cancelAt = 100000;
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitCancelled, codeOf(error));
  EXPECT_LT(server.content("/f").size(), 20000000u);
}

// What is still in flight must not arrive behind what another session sends.
TEST_F(SFTPUpload, ACancelledOneCountsAsUnderWayUntilItsLastPieceHasArrived) {
  for (const auto kind : {NSFileHandle::Kind::kScratch, NSFileHandle::Kind::kFile}) {
    logIn();
    local = makeLocalFile(kind, pattern(20000000));
    local->noteWritten({0, 20000000});
    control.cancelAt = 100000;
    EXPECT_FALSE(upload(0));
    EXPECT_EQ("/f", session->heldPath());
    EXPECT_TRUE(local->extents()->isSending());
    session->becameIdle();
    EXPECT_EQ(0u, peer->undelivered());
    EXPECT_FALSE(local->extents()->isSending());
    EXPECT_EQ(0u, server.openHandles());
    control = RecordingControl();
  }
}

TEST_F(SFTPUpload, ARefusedOneWaitsForThePiecesThatAreInFlightBehindTheRefusal) {
  logIn(13);
  makeScratch(pattern(10 * 32768));
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 3};
  ASSERT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_EQ(0u, peer->undelivered());
  EXPECT_EQ(0u, server.openHandles());
}

TEST_F(SFTPUpload, AnUnreadableLocalFileIsALocalFailure) {
  logIn();
  char name[] = "/tmp/ombra-sftp-XXXXXX";
  const int descriptor = mkstemp(name);
  ASSERT_EQ(3, write(descriptor, "abc", 3));
  close(descriptor);
  local = std::make_unique<NSFileHandle>(open(name, O_WRONLY | O_CLOEXEC));
  unlink(name);
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitLocalFailure, codeOf(error));
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(EBADF, error->underlyingError()->code());
}

TEST_F(SFTPUpload, HasManyRequestsInFlight) {
  server.writeLength = kSFTPMaximumPieceLength;
  logIn();
  makeScratch(pattern(40 * kSFTPMaximumPieceLength));
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(upload(0));
  server.batch = 1;
  EXPECT_LT(peer->waits() - before, 12u);
}

TEST_F(SFTPUpload, OfAnOrdinaryFileIsOverWhenTheServerHasClosedIt) {
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  server.refusalText = "Disk quota exceeded";
  logIn();
  local = makeLocalFile(NSFileHandle::Kind::kFile, pattern(50));
  EXPECT_FALSE(upload(0));
  EXPECT_EQ(kQuarnKitOutOfSpace, codeOf(error));
  session.reset();
}

TEST_F(SFTPUpload, AFlushBringsTheFileToTheServersDisk) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(upload(0));
  EXPECT_TRUE(session->flushFile("/f", &error));
  EXPECT_EQ(std::vector<std::string>{"/f"}, server.flushed);
  server.refusals[kSFTPExtended] = {kSFTPStatusFailure, 0};
  EXPECT_FALSE(session->flushFile("/f", &error));
  EXPECT_EQ(kQuarnKitRefused, codeOf(error));
}

TEST_F(SFTPUpload, AFlushUsesTheHandleThatIsOpen) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(upload(0));
  EXPECT_TRUE(session->flushFile("/f", &error));
  EXPECT_EQ(1u, peer->countOf(kSFTPOpen));
  session->becameIdle();
  EXPECT_TRUE(session->flushFile("/f", &error));
  EXPECT_EQ(2u, peer->countOf(kSFTPOpen));
  EXPECT_EQ((std::vector<std::string>{"/f", "/f"}), server.flushed);
}

TEST_F(SFTPUpload, AFlushOpensTheFileInTheWayThatItMayBeOpened) {
  using Paths = std::set<std::string>;
  const std::pair<Paths, Paths> table[] = {{{"/f"}, {}}, {{}, {"/f"}}};
  for (const auto& [unreadable, unwritable] : table) {
    server = MemoryServer();
    server.addFile("/f", "abc");
    server.unreadable = unreadable;
    server.unwritable = unwritable;
    logIn();
    EXPECT_TRUE(session->flushFile("/f", &error)) << error->description();
    EXPECT_EQ(std::vector<std::string>{"/f"}, server.flushed);
    EXPECT_EQ("abc", server.content("/f"));
  }
  server.unreadable = {"/f"};
  EXPECT_FALSE(session->flushFile("/f", &error));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
}

TEST_F(SFTPUpload, AFlushOfWhatIsGoneSaysSo) {
  logIn();
  EXPECT_FALSE(session->flushFile("/f", &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
}

TEST_F(SFTPUpload, AFlushThroughAHandleThatTheServerForgotOpensTheFileAgain) {
  logIn();
  makeScratch("abc");
  ASSERT_TRUE(upload(0));
  server.forgetHandles();
  EXPECT_TRUE(session->flushFile("/f", &error)) << error->description();
  EXPECT_EQ(std::vector<std::string>{"/f"}, server.flushed);
}

// A slow disk may have much to store.
TEST_F(SFTPUpload, AFlushMayTakeLongerThanTheLimitOfSilence) {
  server.addFile("/f", "abc");
  idleLimit = std::chrono::milliseconds(200);
  logIn();
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPExtended) server.batch = SIZE_MAX;
  };
  // After more than twice the limit.
  int waits = 0;
  peer->setWhenIdle([&](PeerTransport& to) {
    if (++waits > 5) server.flush(to);
  });
  EXPECT_TRUE(session->flushFile("/f", &error)) << error->description();
  EXPECT_EQ(std::vector<std::string>{"/f"}, server.flushed);
}

TEST_F(SFTPUpload, AServerThatKnowsNoFlushIsNotAsked) {
  server.extensions.clear();
  logIn();
  const size_t before = peer->requests().size();
  EXPECT_TRUE(session->flushFile("/f", &error));
  EXPECT_EQ(before, peer->requests().size());
}

// Uploads that answer before the server has.
class SFTPWriteBehind : public SFTPUpload {
 protected:
  void SetUp() override { control.isEarly = true; }
  // A file of 1000 bytes that is stored, with its handle open.
  void begin() {
    logIn();
    makeScratch(pattern(1000));
    ASSERT_TRUE(upload(0));
    ASSERT_FALSE(local->unconfirmedExtents(0).size() > 0);
  }
  bool append(std::string_view bytes) {
    const uint64_t end = local->fileLength();
    writeLocally(bytes, end);
    return upload(end);
  }
};

TEST_F(SFTPWriteBehind, WaitsForNothingWhileTheHandleIsOpen) {
  begin();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(append(pattern(1000, static_cast<unsigned>(i))));
  EXPECT_EQ(before, peer->waits());
  EXPECT_TRUE(local->extents()->isSending());
  server.batch = 1;
  session->becameIdle();
  EXPECT_FALSE(local->extents()->isSending());
  EXPECT_EQ(nullptr, local->extents()->takeFailure());
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
}

TEST_F(SFTPWriteBehind, WhatIsWrittenAgainMeanwhileIsSentAgain) {
  begin();
  server.batch = SIZE_MAX;
  ASSERT_TRUE(append("first"));
  writeLocally("FIRST", 1000);
  ASSERT_TRUE(upload(1000));
  server.batch = 1;
  session->becameIdle();
  EXPECT_EQ("FIRST", server.content("/f").substr(1000));
}

TEST_F(SFTPWriteBehind, ARefusalIsToldByTheNextUploadAndLeavesItUnconfirmed) {
  begin();
  server.batch = SIZE_MAX;
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 0};
  ASSERT_TRUE(append("lost"));
  server.batch = 1;
  server.flush(*peer);
  EXPECT_FALSE(append("later"));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_EQ((std::vector<FileExtent>{{1000, 1009}}), local->unconfirmedExtents(0));
}

TEST_F(SFTPWriteBehind, ARefusalThatNobodyAskedForIsKeptForTheFile) {
  begin();
  server.batch = SIZE_MAX;
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 0};
  ASSERT_TRUE(append("lost"));
  server.batch = 1;
  session->becameIdle();
  EXPECT_FALSE(local->extents()->isSending());
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(local->extents()->takeFailure()));
  EXPECT_EQ((std::vector<FileExtent>{{1000, 1004}}), local->unconfirmedExtents(0));
}

TEST_F(SFTPWriteBehind, WhatIsStoredBehindARefusalIsKnownToBe) {
  begin();
  server.batch = SIZE_MAX;
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 1};
  const size_t before = writes();
  server.before = [&, before](const PeerRequest& request) {
    if (request.type == kSFTPWrite && writes() == before + 3) server.refusals.clear();
  };
  for (const char* piece : {"aaaa", "lost", "cccc"}) ASSERT_TRUE(append(piece));
  server.batch = 1;
  session->becameIdle();
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(local->extents()->takeFailure()));
  EXPECT_EQ((std::vector<FileExtent>{{1004, 1008}}), local->unconfirmedExtents(0));
}

TEST_F(SFTPWriteBehind, ARefusedCloseIsKeptForTheFile) {
  begin();
  ASSERT_TRUE(append("more"));
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  server.refusalText = "Disk quota exceeded";
  session->becameIdle();
  EXPECT_EQ(kQuarnKitOutOfSpace, codeOf(local->extents()->takeFailure()));
  session.reset();
}

// Some servers store at the close, and throw everything away when that fails.
TEST_F(SFTPWriteBehind, WhatARefusedCloseHasLostIsSentAgainByTheNextUpload) {
  begin();
  ASSERT_TRUE(append("more"));
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  session->becameIdle();
  server.refusals.clear();
  server.addFile("/f", std::string(1004, '?'));
  EXPECT_FALSE(append("told")) << "the write after it is told";
  EXPECT_EQ(kQuarnKitRefused, codeOf(error));
  writeLocally("once more", 1004);
  ASSERT_TRUE(upload(1004)) << error->description();
  session->becameIdle();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_EQ(nullptr, local->extents()->takeFailure());
  session.reset();
}

TEST_F(SFTPWriteBehind, WhatAnUnansweredCloseMayHaveLostIsSentAgainByTheNextUpload) {
  begin();
  ASSERT_TRUE(append("more"));
  server.batch = SIZE_MAX;
  peer->setWhenIdle([](PeerTransport&) {});
  session->becameIdle();
  EXPECT_TRUE(session->hasFailed());
  server = MemoryServer();
  server.addFile("/f", std::string(1004, '?'));
  logIn();
  ASSERT_TRUE(append("and after")) << error->description();
  session->becameIdle();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_EQ(nullptr, local->extents()->takeFailure());
}

TEST_F(SFTPWriteBehind, WhatAConfirmedCloseHasStoredIsNotSentAgain) {
  begin();
  session->becameIdle();
  ASSERT_TRUE(append("more"));
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  session->becameIdle();
  EXPECT_EQ((std::vector<FileExtent>{{1000, 1004}}), local->unconfirmedExtents(0));
  session.reset();
}

TEST_F(SFTPWriteBehind, WhatALostSessionHadNotClosedIsSentByTheNextOne) {
  begin();
  server.batch = SIZE_MAX;
  ASSERT_TRUE(append("under way "));
  session.reset();
  EXPECT_FALSE(local->extents()->isSending());
  EXPECT_EQ((std::vector<FileExtent>{{0, 1010}}), local->unconfirmedExtents(0));
  server = MemoryServer();
  server.addFile("/f", std::string(1000, '?'));  // nothing of it was kept
  logIn();
  ASSERT_TRUE(append("and after")) << error->description();
  session->becameIdle();
  EXPECT_EQ(readLocalFile(*local), server.content("/f"));
  EXPECT_EQ(nullptr, local->extents()->takeFailure());
}

TEST_F(SFTPWriteBehind, TheEndOfAHoldThatMeetsALossIsSeenWithoutALook) {
  begin();
  EXPECT_FALSE(session->hasFailed());
  peer->hangUp();
  session->becameIdle();
  EXPECT_TRUE(session->hasFailed());
}

TEST_F(SFTPWriteBehind, AnInterruptedSessionIsKnownToBeOfNoUse) {
  begin();
  session->interrupt();
  EXPECT_TRUE(session->hasFailed());
}

class SFTPStream : public SessionFixture {
 protected:
  bool stream(const std::function<size_t(std::byte*, size_t)>& next) {
    return session->stream(next, "/f", control, &error);
  }
};

TEST_F(SFTPStream, StoresWhatTheHandlerGivesAndReplacesWhatWasThere) {
  const std::string content = pattern(300001);
  for (const size_t piece : {size_t{1000}, size_t{32768}, SIZE_MAX}) {
    server.addFile("/f", std::string(1000000, 'o'));
    logIn();
    size_t at = 0;
    ASSERT_TRUE(stream([&](std::byte* to, size_t capacity) {
      const size_t count = std::min({capacity, piece, content.size() - at});
      std::memcpy(to, content.data() + at, count);
      at += count;
      return count;
    })) << error->description();
    EXPECT_EQ(content, server.content("/f")) << piece;
    EXPECT_EQ(0u, server.openHandles());
    EXPECT_TRUE(control.reached.empty()) << "a stream reports no progress";
    TearDown();
  }
}

TEST_F(SFTPStream, OfNothingLeavesAnEmptyFile) {
  server.addFile("/f", "old");
  logIn();
  ASSERT_TRUE(stream([](std::byte*, size_t) -> size_t { return 0; }));
  EXPECT_EQ("", server.content("/f"));
}

TEST_F(SFTPStream, ThatIsCancelledEndsWithThatError) {
  logIn();
  int calls = 0;
  EXPECT_FALSE(stream([&](std::byte*, size_t) -> size_t {
    control.cancelled = ++calls == 3;
    return control.cancelled ? 0 : 10;
  }));
  EXPECT_EQ(kQuarnKitCancelled, codeOf(error));
}

TEST_F(SFTPStream, ThatIsCancelledHasEndedOnTheServerTooWhenItReturns) {
  logIn();
  bool isAnswered = false;
  peer->setWhenIdle([&](PeerTransport& transport) {
    isAnswered = server.openHandles() == 0;
    server.flush(transport);
  });
  int calls = 0;
  EXPECT_FALSE(stream([&](std::byte*, size_t) -> size_t {
    server.batch = SIZE_MAX;
    control.cancelled = ++calls == 3;
    return control.cancelled ? 0 : 10;
  }));
  EXPECT_EQ(kQuarnKitCancelled, codeOf(error));
  EXPECT_TRUE(isAnswered) << "writes or the close are still under way";
}

TEST_F(SFTPStream, WhoseCloseFailsHasFailed) {
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  server.refusalText = "Disk quota exceeded";
  logIn();
  int calls = 0;
  EXPECT_FALSE(stream([&](std::byte*, size_t) -> size_t { return ++calls == 1 ? 10 : 0; }));
  EXPECT_EQ(kQuarnKitOutOfSpace, codeOf(error));
  session.reset();
}

TEST_F(SFTPStream, LearnsOfARefusedWriteWhileTheHandlerStillGives) {
  server.refusals[kSFTPWrite] = {kSFTPStatusPermissionDenied, 2};
  logIn();
  int calls = 0;
  EXPECT_FALSE(stream([&](std::byte*, size_t capacity) {
    ++calls;
    return capacity;
  }));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
  EXPECT_LT(calls, 100);
}

}  // namespace
}  // namespace ombra::test
