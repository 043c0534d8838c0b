// The object before anything is opened, and its end.

#include <fmt/format.h>

#include "platform/foundation/KCStringAdditions.h"
#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using RemoteFile = RemoteFileTest;

TEST_F(RemoteFile, IsNewAndEmptyHandedAfterCreation) {
  const auto made = OFSRemoteFile::remoteFileForPath("/x");
  EXPECT_EQ(made->remotePath(), "/x");
  EXPECT_EQ(made->state(), 0);
  EXPECT_EQ(made->bytesAvailable(), 0u);
  EXPECT_EQ(made->bytesRequired(), 0u);
  EXPECT_EQ(made->bytesUploading(), 0u);
  EXPECT_EQ(made->mode(), 0);
  EXPECT_FALSE(made->needsFlush());
  EXPECT_EQ(made->fileHandle(), nullptr);
  EXPECT_FALSE(made->isOpen());
  EXPECT_EQ(made->streamWork(), std::nullopt);
  EXPECT_EQ(made->lastError(), nullptr);
  EXPECT_EQ(made->connectionPool(), nullptr);
}

TEST_F(RemoteFile, NamesItsConditionByItsAddress) {
  const auto made = makeFile();
  EXPECT_EQ(made->condition().name(), fmt::format("condition ({})", static_cast<const void*>(made.get())));
}

TEST_F(RemoteFile, UsesAFreshNameWithoutExtensionInTheTemporaryFolder) {
  const std::string path = OFSRemoteFile::uniquePath();
  EXPECT_EQ(stringByDeletingLastPathComponent(path), iFolder);
  EXPECT_EQ(lastPathComponent(path).find('.'), std::string::npos);
  EXPECT_EQ(lastPathComponent(path).size(), 36u);
  EXPECT_NE(OFSRemoteFile::uniquePath(), path);
}

TEST_F(RemoteFile, KeepsItsCachePathFromCreationOn) {
  const auto made = makeFile();
  const std::string path = made->localPath();
  made->setRemotePath("/docs/b.bin");
  EXPECT_EQ(made->remotePath(), "/docs/b.bin");
  EXPECT_EQ(made->localPath(), path);
}

TEST_F(RemoteFile, TrustsEveryServer) {
  const auto made = makeFile();
  const auto pool = server.pool();
  const auto connection = pool->acquireConnection();
  ConnectionDelegate& delegate = *made;
  EXPECT_TRUE(delegate.connection(*connection, TrustQuestion{"SHA256:unknown"}));
  EXPECT_TRUE(delegate.connection(*connection, TrustQuestion{}));
  pool->releaseConnection(connection);
}

TEST_F(RemoteFile, AnswersOnlyTheLowSixteenBitsOfItsFlags) {
  server.addFolder("/docs");
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(0x30000 | kO_CREAT | kO_RDWR, nullptr));
  EXPECT_EQ(file->mode(), kO_CREAT | kO_RDWR);
}

TEST_F(RemoteFile, HasTheLimitsOfTheProcess) {
  EXPECT_EQ(gHardLimit, 60.0);
  EXPECT_TRUE(gStreamingSupported);
  EXPECT_TRUE(gUploadingSupported);
}

TEST_F(RemoteFile, MayBeLetGoByItsLastHolderWhileAWorkerRuns) {
  server.addFile(kPath, "0123456789");
  server.setChunkSize(5);
  const auto hold = server.hold("downloadFileAtPath", kPath, 5);
  auto made = OFSRemoteFile::remoteFileForPath(kPath);
  made->setConnectionPool(server.pool());
  ASSERT_TRUE(made->openWithMode(kO_RDONLY, nullptr));
  const std::weak_ptr<OFSRemoteFile> weak = made;
  made.reset();
  EXPECT_FALSE(weak.expired()) << "the worker keeps the object";
  const TraceRecorder trace;
  hold->release();
  // The worker drops the last reference: the object closes on the worker's thread and does not wait for
  // itself.
  eventually(
      [&] {
        const auto lines = trace.lines();
        return std::find(lines.begin(), lines.end(), "} -[OFSRemoteFile close] remotePath=/docs/a.bin") !=
               lines.end();
      },
      "the object closing on its worker");
  EXPECT_TRUE(weak.expired());
}

TEST_F(RemoteFile, NamesInTheLogWhatWasNotOnTheServerAtItsEnd) {
  gUploadingSupported = false;
  gStreamingSupported = false;
  server.addFolder("/docs");
  auto made = OFSRemoteFile::remoteFileForPath(kPath);
  made->setConnectionPool(server.pool());
  ASSERT_TRUE(made->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  ASSERT_EQ(write(*made, "lost", 0), 4);
  const TraceRecorder trace;
  made.reset();
  EXPECT_THAT(trace.lines(), ::testing::Contains(::testing::HasSubstr("/docs/a.bin was let go")));
}

}  // namespace
}  // namespace ombra
