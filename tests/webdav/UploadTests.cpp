// Whole files and streams.
#include <atomic>

#include "tests/webdav/SessionFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::Not;

const std::string kLargeUpload(WebDAVSession::kSmallUpload + 1, 'x');

// A server with one file or folder at "/a", or nothing. `refusal`: what it answers to a method, 0 for nothing
// special.
struct OneItemServer {
  enum class Item { kNone, kFile, kFolder };
  Item item = Item::kNone;
  std::map<std::string, int> refusals;  // by method; "PUT /a" alone by the whole line

  HTTPReply operator()(const HTTPSeen& seen) const {
    for (const std::string& key : {seen.method + " " + seen.target, seen.method}) {
      const auto refusal = refusals.find(key);
      if (refusal != refusals.end()) return httpReply(refusal->second, "no");
    }
    const bool exists = item != Item::kNone;
    if (seen.method == "PROPFIND") {
      if (!exists) return httpReply(404);
      return davAnswer({davItem(item == Item::kFolder ? "/a/" : "/a", 3)});
    }
    if (seen.method == "PUT")
      return exists && seen.header("if-none-match") == "*" ? httpReply(412) : httpReply(201);
    if (seen.method == "MOVE")
      return exists && seen.header("overwrite") == "F" ? httpReply(412) : httpReply(201);
    return httpReply(204);
  }
};

TEST_F(WebDAVSessionTest, ANewSmallFileIsOneRequestWithACondition) {
  serve(OneItemServer{});
  ASSERT_TRUE(upload("/a", "hello")) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PUT /a"));
  EXPECT_EQ(server->seen().at(0).header("if-none-match"), "*");
  EXPECT_EQ(server->seen().at(0).body, "hello");
  EXPECT_THAT(control.reached, ElementsAre(5u));
  EXPECT_TRUE(file->unconfirmedExtents(0).empty());
}

TEST_F(WebDAVSessionTest, AnEmptyFileReplacesAtOnce) {
  serve(OneItemServer{OneItemServer::Item::kFile, {}});
  ASSERT_TRUE(upload("/a", ""));
  EXPECT_THAT(lines(), ElementsAre("PUT /a"));
  EXPECT_EQ(server->seen().at(0).headers.count("if-none-match"), 0u);
}

TEST_F(WebDAVSessionTest, ANewLargeFileIsSentBesideAndMovedIntoItsPlace) {
  serve(OneItemServer{});
  ASSERT_TRUE(upload("/a", kLargeUpload)) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "MOVE /TEMP"));
  EXPECT_TRUE(server->seen().at(0).body == kLargeUpload);
  EXPECT_EQ(server->seen().at(0).header("content-length"), std::to_string(kLargeUpload.size()));
  EXPECT_EQ(server->seen().at(0).header("transfer-encoding"), "") << "not every server takes that";
  EXPECT_EQ(server->seen().at(1).header("destination"), server->url("/a"));
  EXPECT_EQ(server->seen().at(1).header("overwrite"), "F");
  EXPECT_EQ(control.reached.back(), kLargeUpload.size());
}

TEST_F(WebDAVSessionTest, WhatIsThereIsReplacedOnlyOnceTheNewContentHasArrived) {
  serve(OneItemServer{OneItemServer::Item::kFile, {}});
  ASSERT_TRUE(upload("/a", "hello")) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PUT /a", "PUT /TEMP", "PROPFIND /a", "MOVE /TEMP"));
  EXPECT_EQ(server->seen().back().header("overwrite"), "T");
  serve(OneItemServer{OneItemServer::Item::kFile, {}});
  ASSERT_TRUE(upload("/a", kLargeUpload)) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "MOVE /TEMP", "PROPFIND /a", "MOVE /TEMP"));
}

TEST_F(WebDAVSessionTest, AConditionThatTheServerMisunderstandsIsNoEnd) {
  serve([](const HTTPSeen& seen) {
    if (!seen.header("if-none-match").empty()) return httpReply(412);
    return OneItemServer{}(seen);
  });
  ASSERT_TRUE(upload("/a", "hello")) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PUT /a", "PUT /TEMP", "PROPFIND /a", "MOVE /TEMP"));
}

TEST_F(WebDAVSessionTest, AFolderIsNeverReplacedByAFile) {
  for (const std::string& content : {std::string("hello"), kLargeUpload}) {
    serve(OneItemServer{OneItemServer::Item::kFolder, {}});
    EXPECT_FALSE(upload("/a", content));
    EXPECT_EQ(code(), kQuarnKitItemExists);
    EXPECT_EQ(lines().back(), "DELETE /TEMP");
    for (const HTTPSeen& seen : server->seen()) EXPECT_NE(seen.header("overwrite"), "T");
    EXPECT_FALSE(file->unconfirmedExtents(0).empty()) << "nothing of it is stored";
  }
}

TEST_F(WebDAVSessionTest, WhereTheServerRefusesTheNameTheFileIsWrittenInPlace) {
  for (const int refusal : {403, 405, 400}) {
    serve([refusal](const HTTPSeen& seen) {
      const bool isTemporary = seen.target.find(".ombra-upload-") != std::string::npos;
      if (isTemporary) return httpReply(refusal);
      return OneItemServer{OneItemServer::Item::kFile, {}}(seen);
    });
    ASSERT_TRUE(upload("/a", kLargeUpload)) << refusal;
    EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "DELETE /TEMP", "PUT /a"));
    EXPECT_TRUE(server->seen().back().body == kLargeUpload);
    EXPECT_TRUE(std::is_sorted(control.reached.begin(), control.reached.end()))
        << "what is sent twice is told once";
    control.reached.clear();
  }
}

TEST_F(WebDAVSessionTest, WhereTheServerRefusesTheMoveTheFileIsWrittenInPlaceAndNothingStaysBehind) {
  for (const int refusal : {403, 405, 501, 502}) {
    serve(OneItemServer{OneItemServer::Item::kNone, {{"MOVE", refusal}}});
    ASSERT_TRUE(upload("/a", kLargeUpload)) << refusal;
    EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "MOVE /TEMP", "DELETE /TEMP", "PUT /a"));
  }
}

TEST_F(WebDAVSessionTest, ARefusalThatIsTheSameInPlaceIsTheEnd) {
  const std::pair<int, QuarnKitErrorCode> table[] = {
      {507, kQuarnKitOutOfSpace}, {409, kQuarnKitNoSuchItem}, {413, kQuarnKitRefused}};
  for (const auto& [status, meaning] : table) {
    serve(OneItemServer{OneItemServer::Item::kNone, {{"PUT", status}}});
    EXPECT_FALSE(upload("/a", kLargeUpload)) << status;
    EXPECT_EQ(code(), meaning) << status;
    EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "DELETE /TEMP")) << status;
  }
}

// It may take away what is there, too, and not store what comes in its place.
TEST_F(WebDAVSessionTest, AServerInTroubleIsNotTrustedWithTheFileInPlace) {
  const std::pair<const char*, int> table[] = {{"PUT", 429}, {"PUT", 500},  {"PUT", 502}, {"PUT", 503},
                                               {"PUT", 504}, {"MOVE", 429}, {"MOVE", 503}};
  for (const auto& [refused, status] : table) {
    serve([refused = std::string(refused), status = status](const HTTPSeen& seen) {
      if (seen.method == refused) return httpReply(status, "", "Retry-After: 0\r\n");
      return OneItemServer{OneItemServer::Item::kFile, {}}(seen);
    });
    EXPECT_FALSE(upload("/a", kLargeUpload)) << refused << " " << status;
    EXPECT_THAT(lines(), Not(testing::Contains("PUT /a"))) << refused << " " << status;
    EXPECT_EQ(lines().back(), "DELETE /TEMP") << "nothing stays behind";
  }
}

TEST_F(WebDAVSessionTest, WhatAServerMayStillBeMovingIsLeftAlone) {
  for (const bool isLost : {false, true}) {
    serve([isLost](const HTTPSeen& seen) {
      if (seen.method == "MOVE") return isLost ? httpHangUp() : httpReply(504);
      if (seen.method == "PROPFIND") return davAnswer({davItem(seen.target)});
      return OneItemServer{OneItemServer::Item::kNone, {}}(seen);
    });
    EXPECT_FALSE(upload("/a", kLargeUpload));
    WebDAVSession second(environment(), facts);
    ASSERT_TRUE(second.logIn(&error)) << error->description();
    EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "MOVE /TEMP", "PROPFIND /"));
  }
}

TEST_F(WebDAVSessionTest, WhatALostSessionHasLeftBehindIsRemovedByTheNextOne) {
  serve([](const HTTPSeen& seen) {
    if (seen.target.find(".ombra-upload-") != std::string::npos && seen.method == "PUT") return httpHangUp();
    if (seen.method == "PROPFIND") return davAnswer({davItem(seen.target)});
    return OneItemServer{OneItemServer::Item::kFile, {}}(seen);
  });
  EXPECT_FALSE(upload("/a", kLargeUpload));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  const std::string left = server->seen().back().target;
  WebDAVSession second(environment(), facts);
  ASSERT_TRUE(second.logIn(&error)) << error->description();
  EXPECT_EQ(lines().back(), "DELETE /TEMP");
  EXPECT_EQ(server->seen().back().target, left);
  WebDAVSession third(environment(), facts);
  ASSERT_TRUE(third.logIn(&error)) << error->description();
  EXPECT_EQ(lines().back(), "PROPFIND /") << "once";
}

TEST_F(WebDAVSessionTest, ALoginThatIsLostOverWhatIsLeftBehindIsLostAndTheNextOneIsNot) {
  serve([](const HTTPSeen& seen) {
    if (seen.method != "PROPFIND") return httpHangUp();
    return davAnswer({davItem(seen.target)});
  });
  facts->leftovers.add("/.ombra-upload-x");
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  WebDAVSession second(environment(), facts);
  EXPECT_TRUE(second.logIn(&error)) << error->description();
}

TEST_F(WebDAVSessionTest, ARefusedSmallFileHasTheServersReason) {
  serve(OneItemServer{OneItemServer::Item::kNone, {{"PUT", 403}}});
  EXPECT_FALSE(upload("/a", "hello"));
  EXPECT_EQ(code(), kQuarnKitPermissionDenied);
  EXPECT_THAT(lines(), ElementsAre("PUT /a"));
}

TEST_F(WebDAVSessionTest, ACancelledUploadLeavesNothingBehindAndTouchesNothing) {
  serve(OneItemServer{OneItemServer::Item::kFile, {}});
  control.cancelAt = 1;
  EXPECT_FALSE(upload("/a", std::string(20'000'000, 'x')));
  EXPECT_EQ(code(), kQuarnKitCancelled);
  server->waitForRequests(2);
  EXPECT_THAT(lines(), testing::UnorderedElementsAre("PUT /TEMP", "DELETE /TEMP"));
  EXPECT_TRUE(session->isAlive());
  EXPECT_FALSE(file->unconfirmedExtents(0).empty());
}

TEST_F(WebDAVSessionTest, AFileThatGetsShorterMeanwhileIsALocalFailure) {
  serve(OneItemServer{});
  file = temporaryFile(std::string(20'000'000, 'x'));
  class Shortens final : public TransferControl {
   public:
    explicit Shortens(NSFileHandle& handle) : iHandle(handle) {}
    void progress(uint64_t) override { ASSERT_EQ(ftruncate(iHandle.fileDescriptor(), 10), 0); }
    bool shouldCancel() const override { return false; }

   private:
    NSFileHandle& iHandle;
  } shortens(*file);
  EXPECT_FALSE(session->upload(*file, "/a", 0, shortens, &error));
  EXPECT_EQ(code(), kQuarnKitLocalFailure);
}

TEST_F(WebDAVSessionTest, WritingIntoAnExistingFileIsNotSupported) {
  serve(OneItemServer{});
  file = temporaryFile("hello");
  EXPECT_FALSE(session->upload(*file, "/a", 2, control, &error));
  EXPECT_EQ(code(), kQuarnKitNotSupported);
  EXPECT_TRUE(server->lines().empty());
}

// A server that stores what it is sent, or as much of it as it understands.
struct StoringServer {
  std::shared_ptr<std::string> stored = std::make_shared<std::string>();
  bool losesChunks = false;

  HTTPReply operator()(const HTTPSeen& seen) const {
    if (seen.method == "PROPFIND") return davAnswer({davItem("/a", stored->size())});
    *stored = losesChunks ? "" : seen.body;
    return httpReply(201);
  }
};

TEST_F(WebDAVSessionTest, AStreamIsSentInChunksAndMeasuredOnceForTheServer) {
  const StoringServer stores;
  serve(stores);
  ASSERT_TRUE(stream("/a", std::string(5000, 'x'))) << error->description();
  EXPECT_EQ(stores.stored->size(), 5000u);
  EXPECT_EQ(server->seen().at(0).header("transfer-encoding"), "chunked");
  ASSERT_TRUE(stream("/a", std::string(6000, 'x')));
  EXPECT_THAT(lines(), ElementsAre("PUT /a", "PROPFIND /a", "PUT /a"));
  EXPECT_EQ(server->seen().at(0).header("expect"), "100-continue");
  EXPECT_EQ(server->seen().at(2).header("expect"), "") << "by then it is known to take streams";
  EXPECT_EQ(control.reached.back(), 6000u);
}

// Who writes finds out before the first write has succeeded, and sends the whole file later.
TEST_F(WebDAVSessionTest, AStreamThatIsRefusedTakesNothingFromItsWriter) {
  for (const int status : {411, 501}) {
    facts = std::make_shared<WebDAVFacts>();
    serve(OneItemServer{});
    server->setBeforeBody(
        [status](const HTTPSeen&) { return httpReply(status, "", "Connection: close\r\n"); });
    int taken = 0;
    const auto next = [&taken](std::byte*, size_t) -> size_t {
      ++taken;
      return 0;
    };
    EXPECT_FALSE(session->stream(next, "/a", control, &error)) << status;
    EXPECT_EQ(code(), kQuarnKitNotSupported) << status;
    EXPECT_EQ(taken, 0) << status;
  }
}

TEST_F(WebDAVSessionTest, AnEmptyStreamMakesAnEmptyFile) {
  serve(StoringServer{});
  EXPECT_TRUE(stream("/a", ""));
  EXPECT_THAT(lines(), ElementsAre("PUT /a"));
}

TEST_F(WebDAVSessionTest, AServerThatLosesChunksIsFoundOutAndNotAskedAgain) {
  StoringServer stores;
  stores.losesChunks = true;
  serve(stores);
  EXPECT_FALSE(stream("/a", "hello"));
  EXPECT_EQ(code(), kQuarnKitNotSupported);
  EXPECT_FALSE(stream("/a", "hello"));
  EXPECT_EQ(code(), kQuarnKitNotSupported);
  EXPECT_THAT(lines(), ElementsAre("PUT /a", "PROPFIND /a"));
}

TEST_F(WebDAVSessionTest, AServerThatWantsALengthFailsTheStreamAndIsNotAskedAgain) {
  for (const int status : {411, 501}) {
    facts = std::make_shared<WebDAVFacts>();
    serve(OneItemServer{OneItemServer::Item::kNone, {{"PUT", status}}});
    EXPECT_FALSE(stream("/a", "hello"));
    EXPECT_EQ(code(), kQuarnKitNotSupported);
    EXPECT_FALSE(stream("/a", "hello"));
    EXPECT_EQ(code(), kQuarnKitNotSupported);
    EXPECT_THAT(lines(), ElementsAre("PUT /a"));
  }
}

TEST_F(WebDAVSessionTest, ACancelledStreamNeverLooksWhole) {
  serve(StoringServer{});
  control.cancelAt = 3000;
  EXPECT_FALSE(stream("/a", std::string(5000, 'x')));
  EXPECT_EQ(code(), kQuarnKitCancelled);
  server->waitForRequests(1);
  EXPECT_FALSE(server->seen().at(0).hasWholeBody);
}

}  // namespace
}  // namespace ombra
