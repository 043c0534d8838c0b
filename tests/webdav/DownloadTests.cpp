// Downloads that begin anywhere, break off, and meet changed files.
#include <fcntl.h>

#include "tests/webdav/SessionFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;

constexpr const char* kDateHeader = "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n";

// Serves `content` with its tag, whole or from where a range begins.
HTTPReply contentReply(const HTTPSeen& seen, const std::string& content, const std::string& tag) {
  const std::string headers = "ETag: " + tag + "\r\n" + kDateHeader;
  const std::string range = seen.header("range");
  if (range.empty()) return httpReply(200, content, headers);
  const size_t from = std::stoull(range.substr(6));
  const std::string total = std::to_string(content.size());
  if (from >= content.size()) return httpReply(416, "", "Content-Range: bytes */" + total + "\r\n");
  return httpReply(206, content.substr(from),
                   headers + "Content-Range: bytes " + std::to_string(from) + "-" +
                       std::to_string(content.size() - 1) + "/" + total + "\r\n");
}

TEST_F(WebDAVSessionTest, ADownloadIsOneRequest) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "\"1\""); });
  ASSERT_TRUE(download("/a b")) << error->description();
  EXPECT_EQ(contentOf(*file), "hello world");
  EXPECT_THAT(lines(), ElementsAre("GET /a%20b"));
  EXPECT_EQ(server->seen().at(0).header("accept-encoding"), "identity");
  EXPECT_THAT(control.reached, ElementsAre(11u));
}

TEST_F(WebDAVSessionTest, ABrokenDownloadResumesAtTheByteItReached) {
  serve([](const HTTPSeen& seen) {
    HTTPReply reply = contentReply(seen, "hello world", "\"1\"");
    if (seen.header("range").empty()) {
      reply.bytes.resize(reply.bytes.size() - 6);
      reply.closes = true;
    }
    return reply;
  });
  EXPECT_FALSE(download("/a"));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  ASSERT_EQ(contentOf(*file), "hello");
  // As the pool does: on a new session, with what the first one noted.
  const std::string noted = version;
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "\"1\""); });
  version = noted;
  ASSERT_TRUE(download("/a", 5)) << error->description();
  EXPECT_EQ(contentOf(*file), "hello world");
  EXPECT_EQ(server->seen().at(0).header("range"), "bytes=5-");
  EXPECT_EQ(server->seen().at(0).header("if-match"), "\"1\"");
}

TEST_F(WebDAVSessionTest, AWeakTagIsComparedHereBecauseServersMustNot) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "W/\"1\""); });
  ASSERT_TRUE(download("/a"));
  // What was weak has become strong meanwhile.
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "\"1\""); });
  ASSERT_TRUE(download("/a", 5)) << error->description();
  EXPECT_EQ(server->seen().at(0).headers.count("if-match"), 0u);
  EXPECT_NE(server->seen().at(0).header("if-unmodified-since"), "");
}

struct ChangedCase {
  std::string name;
  std::string content;
  std::string tag;
};

class WebDAVChangedFile : public WebDAVSessionTest, public testing::WithParamInterface<ChangedCase> {};

TEST_P(WebDAVChangedFile, FailsAResumedDownloadAndKeepsWhatArrived) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "\"1\""); });
  ASSERT_TRUE(download("/a"));
  file = temporaryFile("hello");
  serve([](const HTTPSeen& seen) { return contentReply(seen, GetParam().content, GetParam().tag); });
  EXPECT_FALSE(download("/a", 5));
  EXPECT_EQ(code(), kQuarnKitItemChanged) << error->description();
  EXPECT_EQ(contentOf(*file), "hello");
}

INSTANTIATE_TEST_SUITE_P(Changes, WebDAVChangedFile,
                         testing::Values(ChangedCase{"AnotherTag", "HELLO WORLD", "\"2\""},
                                         ChangedCase{"AnotherSize", "hello world!", "\"1\""},
                                         ChangedCase{"Shorter", "hell", "\"1\""},
                                         ChangedCase{"Empty", "", "\"1\""}),
                         [](const auto& test) { return test.param.name; });

TEST_F(WebDAVSessionTest, AServerThatLooksAtTheConditionTellsOfAChangedFile) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello world", "\"1\""); });
  ASSERT_TRUE(download("/a"));
  serve([](const HTTPSeen&) { return httpReply(412); });
  EXPECT_FALSE(download("/a", 5));
  EXPECT_EQ(code(), kQuarnKitItemChanged);
}

TEST_F(WebDAVSessionTest, AServerWithoutRangesSendsTheBeginningInVain) {
  serve([](const HTTPSeen&) { return httpReply(200, "hello world", "ETag: \"1\"\r\n"); });
  file = temporaryFile("hello");
  ASSERT_TRUE(download("/a", 5)) << error->description();
  EXPECT_EQ(contentOf(*file), "hello world");
  EXPECT_THAT(control.reached, ElementsAre(11u));
}

TEST_F(WebDAVSessionTest, AtTheEndOfTheFileThereIsNothingMore) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello", "\"1\""); });
  file = temporaryFile("hello");
  EXPECT_TRUE(download("/a", 5));
  ASSERT_TRUE(download("/a", 5));
  EXPECT_EQ(contentOf(*file), "hello");
}

TEST_F(WebDAVSessionTest, APartThatWasNotAskedForIsNonsense) {
  serve([](const HTTPSeen&) { return httpReply(206, "world", "Content-Range: bytes 6-10/11\r\n"); });
  file = temporaryFile("hello");
  EXPECT_FALSE(download("/a", 5));
  EXPECT_EQ(code(), kQuarnKitProtocolError);
  EXPECT_EQ(contentOf(*file), "hello");
}

TEST_F(WebDAVSessionTest, APartThatEndsEarlyIsALostConnection) {
  serve([](const HTTPSeen&) { return httpReply(206, " wo", "Content-Range: bytes 5-7/11\r\n"); });
  file = temporaryFile("hello");
  EXPECT_FALSE(download("/a", 5));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  EXPECT_EQ(contentOf(*file), "hello wo");
}

TEST_F(WebDAVSessionTest, CompressedContentIsRefused) {
  serve([](const HTTPSeen&) { return httpReply(200, "xxxx", "Content-Encoding: gzip\r\n"); });
  EXPECT_FALSE(download("/a"));
  EXPECT_EQ(code(), kQuarnKitProtocolError);
  EXPECT_EQ(contentOf(*file), "");
}

TEST_F(WebDAVSessionTest, AnErrorDocumentIsNeverContent) {
  for (const int status : {301, 403, 404, 500}) {
    serve([status](const HTTPSeen&) { return httpReply(status, "<html>sorry</html>"); });
    EXPECT_FALSE(download("/a")) << status;
    EXPECT_EQ(contentOf(*file), "") << status;
    EXPECT_EQ(code(), status == 404 ? kQuarnKitNoSuchItem
                                    : (status == 403 ? kQuarnKitPermissionDenied : kQuarnKitRefused));
  }
}

TEST_F(WebDAVSessionTest, ContentThatTellsNoEndIsMeasured) {
  const auto script = [](uint64_t size) {
    return [size](const HTTPSeen& seen) {
      if (seen.method == "PROPFIND") return davAnswer({davItem("/a", size)});
      HTTPReply reply;
      reply.bytes = "HTTP/1.0 200 OK\r\n\r\nhello";
      reply.closes = true;
      return reply;
    };
  };
  serve(script(5));
  EXPECT_TRUE(download("/a")) << error->description();
  serve(script(11));
  EXPECT_FALSE(download("/a"));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
}

TEST_F(WebDAVSessionTest, ADownloadIsCancelledInTheMiddleAndTheSessionGoesOn) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, std::string(3'000'000, 'x'), "\"1\""); });
  control.cancelAt = 1;
  EXPECT_FALSE(download("/a"));
  EXPECT_EQ(code(), kQuarnKitCancelled);
  EXPECT_GT(file->fileLength(), 0u);
  EXPECT_LT(file->fileLength(), 3'000'000u);
  control.cancelAt = UINT64_MAX;
  EXPECT_TRUE(session->isAlive());
  EXPECT_TRUE(download("/a"));
}

TEST_F(WebDAVSessionTest, ALocalFileThatCannotBeWrittenEndsTheDownload) {
  serve([](const HTTPSeen& seen) { return contentReply(seen, "hello", "\"1\""); });
  file = std::make_unique<NSFileHandle>(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_FALSE(download("/a"));
  EXPECT_EQ(code(), kQuarnKitLocalFailure);
  EXPECT_EQ(error->underlyingError()->code(), ENOSPC);
}

}  // namespace
}  // namespace ombra
