// Moves: nothing is removed before everything was copied.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>

#include "tests/s3/MemoryStore.h"
#include "tests/support/ConnectionContract.h"

namespace ombra {
namespace {

using testing::ElementsAre;

S3Limits smallCopies() {
  S3Limits limits;
  limits.singleCopy = 10;
  limits.copyPart = 7;
  return limits;
}

TEST(S3Moves, AFolderMovesWithAllThatIsInIt) {
  MemorySession server;
  server.store().setPageSize(2);
  for (const char* key : {"a/", "a/1", "a/b/2", "a/b/c/", "a/ü &?", "a2/x"}) server.store().put(key, key);
  NSErrorRef error;
  ASSERT_TRUE(server.session().move("/test/a", true, "/test/z", &error)) << error->description();
  EXPECT_THAT(server.store().keys(), ElementsAre("a2/x", "z/", "z/1", "z/b/2", "z/b/c/", "z/ü &?"));
  EXPECT_EQ(server.store().content("z/b/2"), "a/b/2");
}

TEST(S3Moves, TheOldFolderGoesInOneRequest) {
  MemorySession server;
  for (int i = 0; i < 20; ++i) server.store().put("a/" + std::to_string(i), "x");
  NSErrorRef error;
  ASSERT_TRUE(server.session().move("/test/a", true, "/test/b", &error));
  size_t removals = 0;
  for (const std::string& line : server.store().asked()) {
    removals += line.starts_with("DELETE") || line.starts_with("POST /test?delete") ? 1 : 0;
  }
  EXPECT_EQ(removals, 1u);
}

TEST(S3Moves, WhereManyCannotBeRemovedAtOnceTheyAreRemovedOneByOne) {
  MemorySession server;
  for (const char* key : {"a/1", "a/2", "a/bell\a"}) server.store().put(key, "x");
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "POST") return std::nullopt;
    return s3RefusalReply(501, "NotImplemented");
  });
  NSErrorRef error;
  ASSERT_TRUE(server.session().move("/test/a", true, "/test/b", &error)) << error->description();
  EXPECT_THAT(server.store().keys(), ElementsAre("b/1", "b/2", "b/bell\a"));
}

TEST(S3Moves, AMoveThatBreaksOffLeavesTheSourceWholeAndNoCopies) {
  MemorySession server;
  for (const char* key : {"a/1", "a/2", "a/3"}) server.store().put(key, "x");
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.target != "/test/b/3") return std::nullopt;
    return s3RefusalReply(403, "AccessDenied");
  });
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/b", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitPermissionDenied}));
  EXPECT_THAT(server.store().keys(), ElementsAre("a/1", "a/2", "a/3"));
}

// The copy's answer begins as a success and ends as a failure.
TEST(S3Moves, ACopyThatFailsLateRemovesNothing) {
  MemorySession server;
  server.store().put("a", "x");
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "PUT") return std::nullopt;
    return httpReply(200, "<?xml version=\"1.0\"?><Error><Code>AccessDenied</Code></Error>");
  });
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/a", false, "/test/b", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitPermissionDenied}));
  EXPECT_THAT(server.store().keys(), ElementsAre("a"));
}

TEST(S3Moves, ACopyWithoutACopysAnswerRemovesNothing) {
  MemorySession server;
  server.store().put("a", "x");
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "PUT") return std::nullopt;
    return httpReply(200, "<html>Welcome</html>");
  });
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/a", false, "/test/b", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitProtocolError}));
  EXPECT_THAT(server.store().keys(), ElementsAre("a"));
}

TEST(S3Moves, ManyObjectsAreCopiedSeveralAtATime) {
  std::mutex lock;  // outlives the server, whose threads meet
  std::condition_variable meeting;
  std::set<int> present;
  MemorySession server;
  for (int i = 0; i < 100; ++i) server.store().put("a/" + std::to_string(i), std::to_string(i));
  const int before = server.store().server().connections();
  // None is answered before two connections ask for one.
  server.store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "PUT") return std::nullopt;
    std::unique_lock held(lock);
    present.insert(seen.connection);
    meeting.notify_all();
    if (!meeting.wait_for(held, std::chrono::seconds(20), [&present] { return present.size() > 1; }))
      return s3RefusalReply(400, "Alone");
    return std::nullopt;
  });
  NSErrorRef error;
  ASSERT_TRUE(server.session().move("/test/a", true, "/test/b", &error)) << error->description();
  EXPECT_EQ(server.store().keys().size(), 100u);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(server.store().content("b/" + std::to_string(i)), std::to_string(i));
  EXPECT_GT(server.store().server().connections(), before);
  EXPECT_LE(server.store().server().connections(), before + 7);
}

TEST(S3Moves, AnInterruptedMoveEndsSoonAndLeavesTheSourceWhole) {
  std::atomic<int> copies{0};  // outlives the server, whose threads count
  MemorySession server;
  for (int i = 0; i < 100; ++i) server.store().put("a/" + std::to_string(i), "x");
  server.store().setIntercept([&](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "PUT") return std::nullopt;
    return ++copies > 10 ? std::optional(httpSilence()) : std::nullopt;
  });
  NSErrorRef error;
  // The last copies are not answered; each connection waits at one of them.
  auto interrupting = std::async(std::launch::async, [&] {
    server.store().server().waitForRequests(14);
    server.session().interrupt();
  });
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/b", &error));
  interrupting.get();
  EXPECT_TRUE(hasCode(error, {kQuarnKitConnectionLost}));
  size_t left = 0;
  for (const std::string& key : server.store().keys()) left += key.starts_with("a/") ? 1 : 0;
  EXPECT_EQ(left, 100u);
}

TEST(S3Moves, ToItsOwnNameNothingHappens) {
  MemorySession server;
  server.store().put("a", "x");
  server.store().put("f/x", "x");
  NSErrorRef error;
  EXPECT_TRUE(server.session().move("/test/a", false, "/test/./a", &error));
  EXPECT_TRUE(server.session().move("/test/f", true, "/test/f", &error));
  EXPECT_TRUE(server.store().asked().empty());
  EXPECT_THAT(server.store().keys(), ElementsAre("a", "f/x"));
}

TEST(S3Moves, AFolderDoesNotMoveIntoItself) {
  MemorySession server;
  server.store().put("a/b/x", "x");
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/a/b/c", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitRefused}));
  EXPECT_THAT(server.store().keys(), ElementsAre("a/b/x"));
}

TEST(S3Moves, AFolderTakesThePlaceOfAnEmptyOneAlone) {
  MemorySession server;
  for (const char* key : {"a/x", "empty/", "full/", "full/y", "object"}) server.store().put(key, key);
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/full", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitFolderNotEmpty}));
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/object", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitItemExists}));
  EXPECT_FALSE(server.session().move("/test/a", true, "/test/missing/a", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_FALSE(server.session().move("/test/nothing", true, "/test/b", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  ASSERT_TRUE(server.session().move("/test/a", true, "/test/empty", &error)) << error->description();
  EXPECT_THAT(server.store().keys(), ElementsAre("empty/", "empty/x", "full/", "full/y", "object"));
}

TEST(S3Moves, LargeObjectsAreCopiedInPartsWithWhatTheyHaveBesides) {
  MemorySession server(smallCopies());
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    // As servers refuse too large a copy, whose size was not known.
    if (seen.header("x-amz-copy-source").empty() || seen.target.find("partNumber") != std::string::npos)
      return std::nullopt;
    return s3RefusalReply(400, "InvalidRequest",
                          "The specified copy source is larger than the maximum allowable");
  });
  server.store().put("f/large", "0123456789012345678");
  NSErrorRef error;
  ASSERT_TRUE(server.session().move("/test/f/large", false, "/test/f/moved", &error)) << error->description();
  EXPECT_EQ(server.store().content("f/moved"), "0123456789012345678");
  EXPECT_FALSE(server.store().content("f/large").has_value());
  ASSERT_TRUE(server.session().move("/test/f", true, "/test/g", &error)) << error->description();
  EXPECT_EQ(server.store().content("g/moved"), "0123456789012345678");
  EXPECT_EQ(server.store().unfinishedUploads(), 0u);
}

TEST(S3Moves, APartThatCannotBeCopiedLeavesNothingBehind) {
  MemorySession server(smallCopies());
  server.store().put("f/large", "0123456789012345678");
  server.store().setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.target.find("partNumber=2") == std::string::npos) return std::nullopt;
    return s3RefusalReply(412, "PreconditionFailed");
  });
  NSErrorRef error;
  EXPECT_FALSE(server.session().move("/test/f", true, "/test/g", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitItemChanged}));
  EXPECT_EQ(server.store().unfinishedUploads(), 0u);
  EXPECT_THAT(server.store().keys(), ElementsAre("f/large"));
}

}  // namespace
}  // namespace ombra
