// Downloads: order, short replies, resuming, cancelling.
#include <fcntl.h>

#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPDownloadTest : public SessionFixture {
 protected:
  bool download(uint64_t offset = 0) {
    return session->download("/f", *local, offset, &version, control, &error);
  }

  std::unique_ptr<NSFileHandle> local = makeLocalFile(NSFileHandle::Kind::kScratch);
  std::string version;
};

TEST_F(SFTPDownloadTest, BringsTheWholeContentWhateverItsLength) {
  for (const size_t length : {0, 1, 32767, 32768, 32769, 65536, 1000003}) {
    const std::string content = pattern(length);
    server.addFile("/f", content);
    logIn();
    local = makeLocalFile(NSFileHandle::Kind::kScratch);
    version.clear();
    EXPECT_TRUE(download()) << length;
    EXPECT_EQ(content, readLocalFile(*local)) << length;
    TearDown();
  }
}

TEST_F(SFTPDownloadTest, WritesInFileOrderHoweverRepliesAreOrdered) {
  const std::string content = pattern(3000000);
  server.addFile("/f", content);
  logIn();
  server.batch = 7;
  ASSERT_TRUE(download());
  EXPECT_EQ(content, readLocalFile(*local));
  EXPECT_TRUE(std::is_sorted(control.reached.begin(), control.reached.end()));
  EXPECT_EQ(content.size(), control.reached.back());
}

TEST_F(SFTPDownloadTest, WritesNothingBeyondAGap) {
  const std::string content = pattern(10 * 32768);
  server.addFile("/f", content);
  logIn();
  // The first read's reply comes last, when the client can do nothing more.
  std::string held;
  uint64_t lengthWhileWaiting = UINT64_MAX;
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPRead && held.empty()) {
      held = dataReply(request.id, content.substr(0, 32768));
      return;
    }
    server.handle(request, to);
  });
  owned->setWhenIdle([&](PeerTransport& to) {
    if (held.empty() || lengthWhileWaiting != UINT64_MAX) return;
    lengthWhileWaiting = local->fileLength();
    to.send(held);
  });
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  ASSERT_TRUE(other.download("/f", *local, 0, &version, control, &error));
  EXPECT_EQ(0u, lengthWhileWaiting);
  EXPECT_EQ(content, readLocalFile(*local));
}

TEST_F(SFTPDownloadTest, AsksAgainForTheRestOfShortReplies) {
  const std::string content = pattern(500000);
  server.addFile("/f", content);
  for (const size_t most : {size_t{1000}, size_t{20000}, size_t{32767}}) {
    server.mostPerRead = most;
    logIn();
    local = makeLocalFile(NSFileHandle::Kind::kScratch);
    version.clear();
    ASSERT_TRUE(download()) << most;
    EXPECT_EQ(content, readLocalFile(*local)) << most;
    TearDown();
  }
}

TEST_F(SFTPDownloadTest, SurvivesEveryCutOfTheBytes) {
  const std::string content = pattern(70000);
  server.addFile("/f", content);
  for (const size_t cut : {1, 2, 3, 5, 8, 13}) {
    logIn(cut);
    local = makeLocalFile(NSFileHandle::Kind::kScratch);
    version.clear();
    ASSERT_TRUE(download()) << cut;
    EXPECT_EQ(content, readLocalFile(*local)) << cut;
    TearDown();
  }
}

TEST_F(SFTPDownloadTest, BeginsWithAsManyRequestsAsTheLineHasTakenBefore) {
  server.addFile("/f", pattern(8 * 1024 * 1024));
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(download());
  const size_t first = peer->waits() - before;
  local = makeLocalFile(NSFileHandle::Kind::kScratch);
  ASSERT_TRUE(download());
  EXPECT_LT(peer->waits() - before - first, first);
  // A small one is asked for no more than before.
  server.addFile("/f", "small");
  const size_t reads = peer->countOf(kSFTPRead);
  version.clear();
  local = makeLocalFile(NSFileHandle::Kind::kScratch);
  ASSERT_TRUE(download());
  EXPECT_LE(peer->countOf(kSFTPRead) - reads, 1024u * 1024u / 32768u);
}

TEST_F(SFTPDownloadTest, HasManyRequestsInFlightAndNotOneRoundTripEach) {
  server.readLength = kSFTPMaximumPieceLength;
  server.addFile("/f", pattern(40 * kSFTPMaximumPieceLength));
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(download());
  EXPECT_LT(peer->waits() - before, 10u);
}

TEST_F(SFTPDownloadTest, OfASmallFileTakesTwoRoundTrips) {
  server.addFile("/f", "hello");
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(download());
  EXPECT_EQ(2u, peer->waits() - before);
  EXPECT_EQ("hello", readLocalFile(*local));
}

TEST_F(SFTPDownloadTest, ResumesAtAnOffsetWithoutTouchingWhatIsThere) {
  const std::string content = pattern(100000);
  server.addFile("/f", content);
  logIn();
  ASSERT_TRUE(local->writeAll(std::string(40000, 'L').data(), 40000, 0));
  version = "1000:100000";
  ASSERT_TRUE(download(40000)) << error->description();
  EXPECT_EQ(std::string(40000, 'L') + content.substr(40000), readLocalFile(*local));
  EXPECT_EQ(100000u, control.reached.back()) << "progress goes on counting from the offset";
}

TEST_F(SFTPDownloadTest, ResumingAtTheEndBringsNothing) {
  server.addFile("/f", "abc");
  logIn();
  ASSERT_TRUE(local->writeAll("abc", 3, 0));
  ASSERT_TRUE(download(3));
  EXPECT_EQ("abc", readLocalFile(*local));
}

TEST_F(SFTPDownloadTest, TellsTheVersionThatItReads) {
  server.addFile("/f", "abc", 4711);
  logIn();
  ASSERT_TRUE(download());
  EXPECT_EQ("4711:3", version);
}

TEST_F(SFTPDownloadTest, RefusesToResumeAnotherVersionBeforeWritingAByte) {
  server.addFile("/f", pattern(100000), 2000);
  logIn();
  for (const char* other : {"1000:100000", "2000:99999"}) {
    version = other;
    EXPECT_FALSE(download(5));
    EXPECT_EQ(kQuarnKitItemChanged, codeOf(error));
    EXPECT_EQ(0u, local->fileLength());
    EXPECT_EQ(other, version);
  }
}

TEST_F(SFTPDownloadTest, EndsWhereTheFileReallyEnds) {
  // What the attributes promise is more than there is, as when the file is cut while it is read.
  server.addFile("/f", pattern(200000));
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPRead && peer->countOf(kSFTPRead) == 1) server.addFile("/f", pattern(50000));
  };
  logIn();
  EXPECT_TRUE(download());
  EXPECT_EQ(pattern(50000), readLocalFile(*local));
}

TEST_F(SFTPDownloadTest, ReadsFilesWhoseLengthIsNotToldToTheirEnd) {
  // As below /proc: the attributes say 0.
  server.addFile("/f", "");
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPRead && peer->countOf(kSFTPRead) == 1) server.addFile("/f", pattern(150000));
  };
  logIn();
  EXPECT_TRUE(download());
  EXPECT_EQ(pattern(150000), readLocalFile(*local));
}

TEST_F(SFTPDownloadTest, StopsSoonWhenCancelled) {
  server.addFile("/f", pattern(5000000));
  logIn();
  control.cancelAt = 100000;
  EXPECT_FALSE(download());
  EXPECT_EQ(kQuarnKitCancelled, codeOf(error));
  EXPECT_LT(local->fileLength(), 200000u);
  // The session goes on working.
  EXPECT_TRUE(session->attributes("/f", nullptr, &error));
}

TEST_F(SFTPDownloadTest, NoticesACancellationWhileTheServerIsSilent) {
  server.addFile("/f", pattern(5000000));
  logIn();
  // Answers up to the first data, then nothing more: the user gives up while the client waits.
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type != kSFTPRead) server.handle(request, to);
  });
  owned->setWhenIdle([&](PeerTransport& to) { control.cancelled = to.countOf(kSFTPRead) > 0; });
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  EXPECT_FALSE(other.download("/f", *local, 0, &version, control, &error));
  EXPECT_EQ(kQuarnKitCancelled, codeOf(error));
}

TEST_F(SFTPDownloadTest, FailsWithWhatTheServerSays) {
  logIn();
  EXPECT_FALSE(download());
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
  server.addFile("/f", "x");
  server.forbidden.insert("/f");
  EXPECT_FALSE(download());
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
}

TEST_F(SFTPDownloadTest, KeepsWhatHadArrivedWhenAReadFails) {
  const std::string content = pattern(10 * 32768);
  server.addFile("/f", content);
  server.refusals[kSFTPRead] = {kSFTPStatusFailure, 3};
  logIn();
  EXPECT_FALSE(download());
  EXPECT_EQ(kQuarnKitRefused, codeOf(error));
  EXPECT_EQ(content.substr(0, 3 * 32768), readLocalFile(*local));
  EXPECT_EQ(3u * 32768, control.reached.back());
}

TEST_F(SFTPDownloadTest, ALostConnectionKeepsWhatHadArrived) {
  server.addFile("/f", pattern(10 * 32768));
  logIn();
  server.before = [&](const PeerRequest& request) {
    if (request.type == kSFTPRead && peer->countOf(kSFTPRead) == 5) peer->hangUp();
  };
  EXPECT_FALSE(download());
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  EXPECT_FALSE(session->isAlive());
}

TEST_F(SFTPDownloadTest, AFullLocalDiskIsALocalFailure) {
  server.addFile("/f", "abc");
  logIn();
  NSFileHandle full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_FALSE(session->download("/f", full, 0, &version, control, &error));
  EXPECT_EQ(kQuarnKitLocalFailure, codeOf(error));
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(ENOSPC, error->underlyingError()->code());
}

struct BadData {
  const char* what;
  std::function<std::string(uint32_t)> reply;
};

TEST_F(SFTPDownloadTest, DataOfAnotherLengthThanAskedForIsNotWritten) {
  const BadData table[] = {
      {"more than asked", [](uint32_t id) { return dataReply(id, std::string(100000, 'x')); }},
      {"none", [](uint32_t id) { return dataReply(id, ""); }},
      {"a status that says all is well", [](uint32_t id) { return statusReply(id, 0); }},
      {"a handle", [](uint32_t id) { return handleReply(id, "h"); }},
  };
  for (const BadData& row : table) {
    auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
      if (request.type == kSFTPRead) {
        to.send(row.reply(request.id));
      } else {
        server.handle(request, to);
      }
    });
    server.addFile("/f", pattern(1000));
    SessionEnvironment environment;
    environment.transcript = transcript;
    SFTPSession other(std::move(owned), environment);
    ASSERT_TRUE(other.logIn(&error));
    EXPECT_FALSE(other.download("/f", *local, 0, nullptr, control, &error)) << row.what;
    EXPECT_EQ(kQuarnKitProtocolError, codeOf(error)) << row.what;
    EXPECT_EQ(0u, local->fileLength()) << row.what;
  }
}

}  // namespace
}  // namespace ombra::test
