// New files through a pool: what they cost, and what is asked before they are put off.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/ConnectionPool.h"
#include "remote/QuarnKitError.h"
#include "remote/s3/S3Engine.h"
#include "tests/s3/MemoryStore.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Source final : public ConnectionDelegate {
 public:
  explicit Source(std::string content) : iContent(std::move(content)) {}
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  size_t connection(AbstractConnection&, std::byte* buffer, size_t capacity) override {
    const size_t count = std::min(capacity, iContent.size() - iGiven);
    std::copy_n(reinterpret_cast<const std::byte*>(iContent.data()) + iGiven, count, buffer);
    iGiven += count;
    return count;
  }

 private:
  const std::string iContent;
  size_t iGiven = 0;
};

class S3NewFiles : public testing::Test {
 protected:
  S3NewFiles() {
    registerS3Engine();
    iPool = KCConnectionPool::initWithCredentials(store.credentials());
    store.put("f/", "");
    EXPECT_TRUE(list("/test/f"));
    (void)store.asked();
  }
  ~S3NewFiles() override { iPool->shutDown(); }

  bool with(const std::function<bool(AbstractConnection&)>& work) {
    const std::shared_ptr<AbstractConnection> connection = iPool->acquireConnection();
    const bool done = work(*connection);
    iPool->releaseConnection(connection);
    return done;
  }
  bool list(const std::string& path) {
    return with([&](AbstractConnection& connection) {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      return connection.contentsAtPath(path, &nodes, nullptr);
    });
  }
  bool make(const std::string& path) {
    return with([&](AbstractConnection& connection) {
      connection.setPutsOffNewFiles(true);
      return connection.uploadFileHandle(*file, path, path, 0, nullptr, &error);
    });
  }
  bool upload(const std::string& path, const std::string& content) {
    return with([&](AbstractConnection& connection) {
      return connection.uploadFileHandle(*temporaryFile(content), path, path, 0, nullptr, &error);
    });
  }
  bool stream(const std::string& path, const std::string& content) {
    Source source(content);
    return with([&](AbstractConnection& connection) {
      return connection.streamBytesWithFilename(path, path, source, &error);
    });
  }
  bool finish(const std::string& path) {
    return with(
        [&](AbstractConnection& connection) { return connection.finishUploads(*file, path, &error); });
  }

  ManualClock clock;  // the second in which content is waited for does not pass
  MemoryStore store;
  std::unique_ptr<NSFileHandle> file = temporaryFile();
  NSErrorRef error;

 private:
  std::shared_ptr<KCConnectionPool> iPool;
};

TEST_F(S3NewFiles, ASmallFileIsOneRequest) {
  const std::string content = contractContent(4096);
  ASSERT_TRUE(make("/test/f/streamed"));
  ASSERT_TRUE(with([](AbstractConnection& connection) {
    NSFileAttributes mode;
    mode.posixPermissions = uint16_t{0644};
    return !connection.changeAttributes(mode, "/test/f/streamed", nullptr);
  }));
  ASSERT_TRUE(stream("/test/f/streamed", content));
  ASSERT_TRUE(finish("/test/f/streamed"));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/streamed"));
  EXPECT_EQ(store.content("f/streamed"), content);
  ASSERT_TRUE(make("/test/f/sent"));
  ASSERT_TRUE(upload("/test/f/sent", content));
  ASSERT_TRUE(finish("/test/f/sent"));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/sent"));
  EXPECT_EQ(store.content("f/sent"), content);
}

TEST_F(S3NewFiles, AnEmptyFileIsOneRequest) {
  ASSERT_TRUE(make("/test/f/empty"));
  EXPECT_THAT(store.asked(), IsEmpty());
  ASSERT_TRUE(finish("/test/f/empty"));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/empty"));
  EXPECT_EQ(store.content("f/empty"), "");
}

// Else who looks at it would wait for all of that.
TEST_F(S3NewFiles, OneWithMuchContentIsMadeFirst) {
  const std::string content = contractContent((size_t{1} << 20) + 1);
  ASSERT_TRUE(make("/test/f/streamed"));
  ASSERT_TRUE(stream("/test/f/streamed", content));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/streamed", "PUT /test/f/streamed"));
  ASSERT_TRUE(make("/test/f/sent"));
  ASSERT_TRUE(upload("/test/f/sent", content));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/sent", "PUT /test/f/sent"));
  EXPECT_EQ(store.content("f/streamed"), content);
  EXPECT_EQ(store.content("f/sent"), content);
}

TEST_F(S3NewFiles, AMissingFolderIsAskedForWhereItIsUnknown) {
  EXPECT_FALSE(make("/test/none/a"));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_EQ(store.asked().size(), 1u) << "its first key";
  EXPECT_TRUE(file->extents()->isSettled());
}

TEST_F(S3NewFiles, ABucketThatNobodyHasSeenIsAskedForByMakingTheFile) {
  EXPECT_FALSE(make("/none/a"));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /none/a"));
  EXPECT_FALSE(make("/a"));
  EXPECT_TRUE(hasCode(error, {kQuarnKitPermissionDenied}));
  EXPECT_THAT(store.asked(), IsEmpty());
}

TEST_F(S3NewFiles, WhereNothingMayBeWrittenSynchronisingSaysSo) {
  store.setIntercept([](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.method != "PUT") return std::nullopt;
    return s3RefusalReply(403, "AccessDenied");
  });
  ASSERT_TRUE(make("/test/f/a"));
  EXPECT_FALSE(finish("/test/f/a"));
  EXPECT_TRUE(hasCode(error, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(store.content("f/a").has_value());
}

TEST_F(S3NewFiles, RemovingOneThatWasNotMadeYetLeavesNothing) {
  ASSERT_TRUE(make("/test/f/a"));
  ASSERT_TRUE(with([](AbstractConnection& connection) {
    return connection.deleteItemAtPath("/test/f/a", false, nullptr);
  }));
  EXPECT_THAT(store.asked(), ElementsAre("PUT /test/f/a", "DELETE /test/f/a"));
  EXPECT_TRUE(finish("/test/f/a"));
  EXPECT_FALSE(store.content("f/a").has_value());
}

}  // namespace
}  // namespace ombra
