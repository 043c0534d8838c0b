// The object before anything is opened, and its end.

#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "fshelper/OFSTracing.h"
#include "platform/foundation/Gestalt.h"
#include "platform/foundation/KCStringAdditions.h"
#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

using RemoteFile = RemoteFileTest;

// Before any test has set them.
const double kFirstHardLimit = gHardLimit;
const bool kFirstStreamingSupported = gStreamingSupported;
const bool kFirstUploadingSupported = gUploadingSupported;

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
  EXPECT_EQ(stringByDeletingLastPathComponent(path), iFolder);
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
  EXPECT_EQ(kFirstHardLimit, 60.0);
  EXPECT_TRUE(kFirstStreamingSupported);
  EXPECT_TRUE(kFirstUploadingSupported);
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

TEST_F(RemoteFile, TracesNeitherItsMakingNorItsFields) {
  const TraceRecorder trace;
  auto made = OFSRemoteFile::remoteFileForPath(kPath);
  made->setConnectionPool(server.pool());
  made->setRemotePath("/docs/b.bin");
  EXPECT_NE(OFSRemoteFile::uniquePath(), made->localPath());
  EXPECT_EQ(made->connectionPool(), server.pool());
  EXPECT_EQ(made->state(), 0);
  EXPECT_EQ(made->mode(), 0);
  EXPECT_EQ(made->fileHandle(), nullptr);
  EXPECT_EQ(made->lastError(), nullptr);
  EXPECT_THAT(trace.lines(), IsEmpty());
  made.reset();
  EXPECT_THAT(trace.lines(), ElementsAre("{ -[OFSRemoteFile close] remotePath=/docs/b.bin", "close state=0",
                                         "} -[OFSRemoteFile close] remotePath=/docs/b.bin"))
      << "its end is a close and nothing else";
}

TEST_F(RemoteFile, ClosesItsCacheFileAtItsEndAndRemovesNone) {
  server.addFolder("/docs");
  auto made = OFSRemoteFile::remoteFileForPath(kPath);
  made->setConnectionPool(server.pool());
  ASSERT_TRUE(made->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  const std::weak_ptr<NSFileHandle> handle = made->fileHandle();
  const std::string path = made->localPath();
  std::ofstream(path) << "of somebody else";
  made.reset();
  EXPECT_TRUE(handle.expired());
  EXPECT_TRUE(std::filesystem::remove(path));
}

struct Failure {
  const char* name;
  int code;
  std::function<bool(OFSRemoteFile& opened, OFSRemoteFile& fresh, NSErrorRef* error)> fails;
};

// Every call of this machine fails, and the server permits nothing.
class RemoteFileFailure : public RemoteFileTest, public ::testing::WithParamInterface<Failure> {
 protected:
  RemoteFileFailure() {
    forgetDebugLogging();
    NewGestaltValue(kSelector, 1);
  }
  ~RemoteFileFailure() override { forgetDebugLogging(); }
  static void forgetDebugLogging() {
    DeleteGestaltValue(kSelector);
    ofs_forgetDebugLogging();
  }
  static constexpr uint32_t kSelector = fourCharacterCode("KDbg");
};

TEST_P(RemoteFileFailure, IsLoggedOnceWithDebugLogging) {
  file = downloadedFile("0123456789");
  const auto fresh = makeFile("/docs/b.bin");
  calls.fail(GetParam().code == kENOENT ? Call::kHandle : Call::kOpen, EMFILE);
  for (const Call call : {Call::kPread, Call::kPwrite, Call::kFtruncate}) calls.fail(call, EIO);
  server.failAlways("changeAttributes", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  const TraceRecorder log;
  gTracingEnabled = false;
  NSErrorRef error;
  EXPECT_TRUE(GetParam().fails(*file, *fresh, &error));
  ASSERT_TRUE(isPosixError(error, GetParam().code));
  EXPECT_THAT(log.lines(), ElementsAre(error->description()));
}

TEST_P(RemoteFileFailure, IsTracedOnceWithItsPlace) {
  file = downloadedFile("0123456789");
  const auto fresh = makeFile("/docs/b.bin");
  calls.fail(GetParam().code == kENOENT ? Call::kHandle : Call::kOpen, EMFILE);
  for (const Call call : {Call::kPread, Call::kPwrite, Call::kFtruncate}) calls.fail(call, EIO);
  server.failAlways("changeAttributes", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  const TraceRecorder log;
  NSErrorRef error;
  EXPECT_TRUE(GetParam().fails(*file, *fresh, &error));
  EXPECT_THAT(log.placedLines(), Contains(AllOf(ContainsRegex("^OFSRemoteFile(\\+[A-Za-z]+)?\\.cpp:[0-9]+: "),
                                                EndsWith(": " + error->description())))
                                     .Times(1));
}

using File = OFSRemoteFile;
using Slot = NSErrorRef*;

bool failsToOpen(File&, File& fresh, Slot error) { return !fresh.openWithMode(kO_RDONLY, error); }

bool failsToRead(File& opened, File&, Slot error) {
  char byte = 0;
  return opened._readToBuffer(&byte, 1, 0, error) == -1;
}

bool failsToWrite(File& opened, File&, Slot error) { return opened._writeFromBuffer("x", 1, 0, error) == -1; }

bool failsToTruncate(File& opened, File&, Slot error) { return !opened._truncateToOffset(4, error); }

bool failsToSetAttributes(File& opened, File&, Slot error) {
  NSFileAttributes change;
  change.posixPermissions = 0640;
  return !opened.setAttributes(change, error);
}

INSTANTIATE_TEST_SUITE_P(Operations, RemoteFileFailure,
                         ::testing::Values(Failure{"OpenWithoutAHandle", kENOENT, failsToOpen},
                                           Failure{"Open", kEIO, failsToOpen},
                                           Failure{"Read", kEIO, failsToRead},
                                           Failure{"Write", kEIO, failsToWrite},
                                           Failure{"Truncate", kEIO, failsToTruncate},
                                           Failure{"SetAttributes", kEIO, failsToSetAttributes}),
                         [](const auto& parameter) { return parameter.param.name; });

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
