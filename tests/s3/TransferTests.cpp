// Downloads that resume, uploads that never destroy, streams that leave nothing behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>

#include "tests/s3/MemoryStore.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::ElementsAre;

S3Limits smallParts() {
  S3Limits limits;
  limits.singlePut = 1000;
  limits.filePart = 400;
  limits.firstStreamPart = 500;
  limits.streamPace = std::chrono::hours(1);
  return limits;
}

class S3Transfers : public testing::Test {
 protected:
  MemoryStore& store() { return iServer.store(); }
  S3Session& session() { return iServer.session(); }

  bool upload(const std::string& content, KeptControl& control) {
    const auto file = temporaryFile(content);
    return session().upload(*file, "/test/file", 0, control, &iError);
  }
  bool upload(const std::string& content) {
    KeptControl control;
    return upload(content, control);
  }

  bool stream(const std::string& content, KeptControl& control, size_t piece = 300) {
    size_t given = 0;
    const auto next = [&](std::byte* buffer, size_t capacity) {
      const size_t count = std::min({capacity, piece, content.size() - given});
      std::copy_n(reinterpret_cast<const std::byte*>(content.data()) + given, count, buffer);
      given += count;
      return count;
    };
    return session().stream(next, "/test/file", control, &iError);
  }

  bool download(NSFileHandle& file, uint64_t offset, std::string* version) {
    KeptControl control;
    return session().download("/test/file", file, offset, version, control, &iError);
  }

  void refuse(const std::string& part, HTTPReply reply) {
    store().setIntercept([part, reply](const HTTPSeen& seen) -> std::optional<HTTPReply> {
      const std::string line = seen.method + " " + seen.target;
      if (line.find(part) == std::string::npos) return std::nullopt;
      return reply;
    });
  }

  MemorySession iServer{smallParts()};
  NSErrorRef iError;
};

TEST_F(S3Transfers, LongFilesTravelInParts) {
  const std::string content = contractContent(1999);
  KeptControl control;
  ASSERT_TRUE(upload(content, control)) << iError->description();
  EXPECT_EQ(store().content("file"), content);
  EXPECT_EQ(store().asked().size(), 7u) << "begin, five parts, end";
  EXPECT_EQ(control.reached.back(), 1999u);
  EXPECT_TRUE(std::is_sorted(control.reached.begin(), control.reached.end()));
  EXPECT_EQ(store().unfinishedUploads(), 0u);
}

TEST_F(S3Transfers, FilesUpToTheLimitAreOneRequest) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{1000}}) {
    (void)store().asked();
    ASSERT_TRUE(upload(contractContent(size)));
    EXPECT_THAT(store().asked(), ElementsAre("PUT /test/file"));
    EXPECT_EQ(store().content("file"), contractContent(size));
  }
}

TEST_F(S3Transfers, StreamsOfEveryLengthArriveWhole) {
  for (const size_t size : {0, 1, 499, 500, 501, 999, 1000, 1001, 5000}) {
    KeptControl control;
    const std::string content = contractContent(static_cast<size_t>(size), 3);
    ASSERT_TRUE(stream(content, control)) << size << iError->description();
    EXPECT_EQ(store().content("file"), content) << size;
    EXPECT_EQ(store().unfinishedUploads(), 0u);
  }
}

// Each part takes the server a while, in which it takes others.
TEST_F(S3Transfers, SeveralPartsOfAStreamAreUnderWayAtOnce) {
  std::mutex lock;
  std::condition_variable meeting;
  size_t present = 0;
  store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.target.find("partNumber") == std::string::npos) return std::nullopt;
    // None is answered before six are there.
    std::unique_lock held(lock);
    ++present;
    meeting.notify_all();
    if (!meeting.wait_for(held, std::chrono::seconds(20), [&present] { return present >= 6; }))
      return s3RefusalReply(400, "Alone");
    return std::nullopt;
  });
  KeptControl control;
  const std::string content = contractContent(3999);
  ASSERT_TRUE(stream(content, control)) << iError->description();
  EXPECT_EQ(store().content("file"), content);
  EXPECT_EQ(store().asked().size(), 10u) << "begin, eight parts, end";
  EXPECT_EQ(control.reached.back(), 3999u);
  EXPECT_TRUE(std::is_sorted(control.reached.begin(), control.reached.end()));
}

// Who writes gives a stream up that takes nothing for some seconds. Neither is the writer held up where the
// session's own connection is the only one that the server takes.
class S3SlowLine : public testing::TestWithParam<bool> {};

TEST_P(S3SlowLine, TheWriterIsAskedForMoreAlthoughAsManyPartsAsMayBeAreUnderWay) {
  S3Limits limits = smallParts();
  limits.streamSip = 100;
  limits.streamPace = std::chrono::milliseconds(1);
  MemorySession server(limits);
  std::mutex lock;
  std::condition_variable asking;
  int sessions = 0;  // the connection's number
  size_t given = 0;
  // Eight parts, of which six are under way.
  constexpr size_t kMuch = 4000;
  server.store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    std::unique_lock held(lock);
    if (seen.target.find("uploads=") != std::string::npos) sessions = seen.connection;
    if (seen.target.find("partNumber") == std::string::npos) return std::nullopt;
    if (GetParam() && seen.connection != sessions) return httpHangUp();
    if (!asking.wait_for(held, std::chrono::seconds(20), [&given] { return given >= kMuch; }))
      return s3RefusalReply(400, "Starved");
    return std::nullopt;
  });
  const std::string content = contractContent(kMuch + 700);
  const auto next = [&](std::byte* buffer, size_t capacity) {
    const std::unique_lock held(lock);
    const size_t count = std::min(capacity, content.size() - given);
    std::copy_n(reinterpret_cast<const std::byte*>(content.data()) + given, count, buffer);
    given += count;
    asking.notify_all();
    return count;
  };
  KeptControl control;
  NSErrorRef error;
  ASSERT_TRUE(server.session().stream(next, "/test/file", control, &error)) << error->description();
  EXPECT_EQ(server.store().content("file"), content);
  EXPECT_EQ(server.store().unfinishedUploads(), 0u);
  if (GetParam()) return;
  EXPECT_EQ(server.store().asked().size(), 12u) << "begin, ten parts, all but the last of one size, end";
}

INSTANTIATE_TEST_SUITE_P(Connections, S3SlowLine, testing::Bool(),
                         [](const auto& about) { return about.param ? "TheSessionsAlone" : "Several"; });

// A part that takes long, on a slow connection for example, does not make the others wait.
TEST_F(S3Transfers, APartThatTakesLongHoldsUpNoOther) {
  std::mutex lock;
  std::condition_variable meeting;
  std::set<std::string> others;
  store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.target.find("partNumber") == std::string::npos) return std::nullopt;
    std::unique_lock held(lock);
    if (seen.target.find("partNumber=1&") == std::string::npos) {
      others.insert(seen.target);
      meeting.notify_all();
      return std::nullopt;
    }
    // More than are under way at once.
    if (!meeting.wait_for(held, std::chrono::seconds(20), [&others] { return others.size() == 15; }))
      return s3RefusalReply(400, "Alone");
    return std::nullopt;
  });
  KeptControl control;
  const std::string content = contractContent(7999);
  ASSERT_TRUE(stream(content, control)) << iError->description();
  EXPECT_EQ(store().content("file"), content);
}

// Servers bound how many connections somebody has.
TEST_F(S3Transfers, PartsWhoseOwnConnectionIsRefusedTravelOnTheSessions) {
  std::mutex lock;
  std::condition_variable refusal;
  int sessions = 0;  // the connection's number
  size_t refused = 0;
  store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    std::unique_lock held(lock);
    if (seen.target.find("uploads=") != std::string::npos) sessions = seen.connection;
    if (seen.target.find("partNumber=") == std::string::npos) return std::nullopt;
    if (seen.connection != sessions) {
      ++refused;
      refusal.notify_all();
      return httpHangUp();
    }
    // One that is answered at once would leave its connection to the next part.
    if (!refusal.wait_for(held, std::chrono::seconds(20), [&refused] { return refused > 0; }))
      return s3RefusalReply(400, "Alone");
    return std::nullopt;
  });
  KeptControl control;
  const std::string content = contractContent(3999);
  ASSERT_TRUE(stream(content, control)) << iError->description();
  EXPECT_EQ(store().content("file"), content);
}

TEST_F(S3Transfers, AFailedPartLeavesTheOldFileAndNoParts) {
  store().put("file", "old");
  refuse("partNumber=2", s3RefusalReply(403, "QuotaExceeded"));
  EXPECT_FALSE(upload(contractContent(1999)));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitOutOfSpace}));
  EXPECT_EQ(store().content("file"), "old");
  EXPECT_EQ(store().unfinishedUploads(), 0u);
  KeptControl control;
  EXPECT_FALSE(stream(contractContent(1999), control));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitOutOfSpace}));
  EXPECT_EQ(store().content("file"), "old");
  EXPECT_EQ(store().unfinishedUploads(), 0u);
}

TEST_F(S3Transfers, ACancelledTransferLeavesTheOldFileAndNoParts) {
  store().put("file", "old");
  KeptControl uploading;
  uploading.cancelAt = 800;
  EXPECT_FALSE(upload(contractContent(1999), uploading));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitCancelled}));
  KeptControl streaming;
  streaming.cancelAt = 500;
  EXPECT_FALSE(stream(contractContent(1999), streaming));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitCancelled}));
  EXPECT_EQ(store().content("file"), "old");
  EXPECT_EQ(store().unfinishedUploads(), 0u);
}

// Unmounting ends sessions in the middle of their work.
TEST_F(S3Transfers, AnInterruptedStreamLeavesNoParts) {
  size_t calls = 0;
  const auto next = [this, &calls](std::byte*, size_t capacity) {
    if (++calls == 3) session().interrupt();
    return std::min<size_t>(capacity, 400);
  };
  KeptControl control;
  EXPECT_FALSE(session().stream(next, "/test/file", control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitConnectionLost}));
  EXPECT_EQ(store().unfinishedUploads(), 0u);
  EXPECT_TRUE(store().keys().empty());
  EXPECT_FALSE(session().isAlive());
}

TEST_F(S3Transfers, AnUploadThatEndsWithAFailureInsideOfASuccessIsAFailure) {
  store().put("file", "old");
  refuse(
      "POST /test/file?uploadId",
      httpReply(200,
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n\n<Error><Code>EntityTooSmall</Code></Error>"));
  EXPECT_FALSE(upload(contractContent(1999)));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitRefused}));
  EXPECT_EQ(store().content("file"), "old");
  EXPECT_EQ(store().unfinishedUploads(), 0u);
}

TEST_F(S3Transfers, APageInPlaceOfAnAnswerIsNoSuccess) {
  const HTTPReply page = httpReply(200, "<html>Sign in</html>", "Content-Type: text/html\r\n");
  for (const char* part : {"uploads=", "partNumber=1", "POST /test/file?uploadId"}) {
    refuse(part, page);
    EXPECT_FALSE(upload(contractContent(1999)));
    EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError})) << part;
  }
  store().put("file", "content");
  refuse("GET /test/file", page);
  const auto file = temporaryFile();
  EXPECT_FALSE(download(*file, 0, nullptr));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError}));
  EXPECT_EQ(file->fileLength(), 0u) << "nothing of a page is taken for content";
}

TEST_F(S3Transfers, ALostConnectionInTheMiddleOfAnUploadCostsOneRequest) {
  for (const char* part : {"partNumber=2", "POST /test/file?uploadId"}) {
    const auto isFirst = std::make_shared<std::atomic<bool>>(true);
    store().setIntercept([part, isFirst](const HTTPSeen& seen) -> std::optional<HTTPReply> {
      const std::string line = seen.method + " " + seen.target;
      if (line.find(part) == std::string::npos || !isFirst->exchange(false)) return std::nullopt;
      return httpHangUp();
    });
    (void)store().asked();
    ASSERT_TRUE(upload(contractContent(1999))) << part << iError->description();
    EXPECT_EQ(store().asked().size(), 8u) << part;
    EXPECT_EQ(store().content("file"), contractContent(1999));
    EXPECT_EQ(store().unfinishedUploads(), 0u);
  }
}

bool isCompletion(const HTTPSeen& seen) {
  return seen.method == "POST" && seen.target.find("uploadId=") != std::string::npos;
}

TEST_F(S3Transfers, AnUploadThatIsGoneButWasCompletedIsASuccess) {
  const std::string content = contractContent(1999);
  const auto isFirst = std::make_shared<std::atomic<bool>>(true);
  store().setIntercept([this, isFirst](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (!isCompletion(seen) || !isFirst->exchange(false)) return std::nullopt;
    (void)store().perform(seen);
    return httpHangUp();
  });
  EXPECT_TRUE(upload(content)) << iError->description();
  EXPECT_FALSE(isFirst->load());
  EXPECT_EQ(store().content("file"), content);
}

// Servers throw uploads away that take long.
TEST_F(S3Transfers, AnUploadThatIsGoneIsNotTakenForTheObjectOfAsManyPartsThatIsThere) {
  const std::string before = contractContent(1999);
  ASSERT_TRUE(upload(before));
  store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    return isCompletion(seen) ? std::optional(s3RefusalReply(404, "NoSuchUpload")) : std::nullopt;
  });
  std::string content = before;
  content[1000] = static_cast<char>(content[1000] + 1);
  EXPECT_FALSE(upload(content));
  EXPECT_EQ(store().content("file"), before);
}

TEST_F(S3Transfers, AnUploadConfirmsWhatItSentAndAFailedOneDoesNot) {
  const auto file = temporaryFile(contractContent(800));
  KeptControl control;
  refuse("PUT", s3RefusalReply(403, "AccessDenied"));
  EXPECT_FALSE(session().upload(*file, "/test/file", 0, control, &iError));
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{0, 800}}));
  store().setIntercept({});
  EXPECT_TRUE(session().upload(*file, "/test/file", 0, control, &iError));
  EXPECT_TRUE(file->unconfirmedExtents(0).empty());
  EXPECT_FALSE(session().upload(*file, "/test/file", 10, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNotSupported}));
}

TEST_F(S3Transfers, ADownloadGoesOnWithTheVersionItBeganWith) {
  const std::string content = contractContent(3000);
  store().put("file", content);
  const auto file = temporaryFile();
  std::string version;
  ASSERT_TRUE(download(*file, 0, &version));
  EXPECT_EQ(contentOf(*file), content);
  (void)store().asked();
  const auto rest = temporaryFile(content.substr(0, 1000));
  ASSERT_TRUE(download(*rest, 1000, &version)) << iError->description();
  EXPECT_EQ(contentOf(*rest), content);
  const std::vector<HTTPSeen> seen = store().server().seen();
  EXPECT_EQ(seen.back().header("range"), "bytes=1000-");
  EXPECT_EQ(seen.back().header("if-match"), store().object("file")->tag);
}

TEST_F(S3Transfers, ADownloadOfWhatChangedMeanwhileFails) {
  store().put("file", contractContent(3000));
  const auto file = temporaryFile();
  std::string version;
  ASSERT_TRUE(download(*file, 0, &version));
  for (const bool looksAtTags : {true, false}) {
    store().put("file", contractContent(3000, 2));
    if (!looksAtTags) {
      // As a server that does not look at the tag that it was given.
      store().setIntercept([this](const HTTPSeen&) -> std::optional<HTTPReply> {
        return httpReply(
            206, contractContent(3000, 2).substr(1000),
            "Content-Range: bytes 1000-2999/3000\r\nETag: " + store().object("file")->tag + "\r\n");
      });
    }
    EXPECT_FALSE(download(*file, 1000, &version));
    EXPECT_TRUE(hasCode(iError, {kQuarnKitItemChanged})) << looksAtTags;
  }
  EXPECT_EQ(contentOf(*file), contractContent(3000)) << "nothing of the other was taken";
}

TEST_F(S3Transfers, BehindTheEndThereIsNothingUnlessTheFileBecameShorter) {
  store().put("file", contractContent(1000));
  const auto file = temporaryFile();
  std::string version;
  ASSERT_TRUE(download(*file, 0, &version));
  EXPECT_TRUE(download(*file, 1000, &version)) << iError->description();
  EXPECT_FALSE(download(*file, 1001, nullptr));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitItemChanged}));
  store().put("file", contractContent(900));
  EXPECT_FALSE(download(*file, 1000, &version));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitItemChanged}));
  store().remove("file");
  EXPECT_FALSE(download(*file, 1000, nullptr));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
}

struct WrongAnswer {
  const char* name;
  int status;
  std::string headers;
};

TEST_F(S3Transfers, AnAnswerThatIsNotThePartThatWasAskedForIsRefused) {
  const std::vector<WrongAnswer> table{
      {"the whole", 200, "ETag: \"t\"\r\n"},
      {"another part", 206, "ETag: \"t\"\r\nContent-Range: bytes 0-9/1000\r\n"},
      {"not to the end", 206, "ETag: \"t\"\r\nContent-Range: bytes 500-509/1000\r\n"},
      {"no range", 206, "ETag: \"t\"\r\n"},
      {"nonsense", 206, "ETag: \"t\"\r\nContent-Range: bytes 18446744073709551615-1/*\r\n"},
      {"longer than told", 206, "ETag: \"t\"\r\nContent-Range: bytes 500-504/505\r\n"},
      {"no tag", 206, "Content-Range: bytes 500-509/510\r\n"}};
  for (const WrongAnswer& wrong : table) {
    refuse("GET", httpReply(wrong.status, "0123456789", wrong.headers));
    const auto file = temporaryFile(contractContent(500));
    EXPECT_FALSE(download(*file, 500, nullptr)) << wrong.name;
    EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError})) << wrong.name;
    EXPECT_EQ(file->fileLength(), 500u) << wrong.name;
  }
}

TEST_F(S3Transfers, AContentThatBreaksOffIsALostConnection) {
  HTTPReply reply;
  reply.bytes = "HTTP/1.1 200 OK\r\nETag: \"t\"\r\nContent-Length: 1000\r\n\r\nonly this";
  reply.closes = true;
  refuse("GET", reply);
  const auto file = temporaryFile();
  std::string version;
  EXPECT_FALSE(download(*file, 0, &version));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitConnectionLost}));
  EXPECT_EQ(contentOf(*file), "only this");
  EXPECT_EQ(version, "\"t\" 1000") << "what is needed to go on";
}

TEST_F(S3Transfers, ACancelledDownloadSaysSo) {
  store().put("file", contractContent(3000000));
  const auto file = temporaryFile();
  KeptControl control;
  control.cancelAt = 1;
  EXPECT_FALSE(session().download("/test/file", *file, 0, nullptr, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitCancelled}));
  EXPECT_LT(file->fileLength(), 3000000u);
}

TEST_F(S3Transfers, IntoAFolderThatIsNotThereNothingIsSent) {
  const auto file = temporaryFile("x");
  KeptControl control;
  EXPECT_FALSE(session().upload(*file, "/test/missing/file", 0, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
  EXPECT_TRUE(store().keys().empty());
}

// Who may write and not look is not kept from writing.
TEST_F(S3Transfers, WhereFoldersMayNotBeListedFilesCanBeWritten) {
  refuse("GET /test?", s3RefusalReply(403, "AccessDenied"));
  const auto file = temporaryFile("x");
  KeptControl control;
  EXPECT_TRUE(session().upload(*file, "/test/inbox/file", 0, control, &iError));
  EXPECT_EQ(store().content("inbox/file"), "x");
}

}  // namespace
}  // namespace ombra
