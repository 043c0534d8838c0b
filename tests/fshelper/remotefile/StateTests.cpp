// The state machine as a table: which operations wait in which state.

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

enum class Operation {
  kOpen,
  kRead,
  kAttributes,
  kSetAttributes,
  kWrite,
  kWriteElsewhere,
  kTruncate,
  kClose,
  kSynchronise
};

struct Case {
  const char* name;
  OFSTransferState state;
  Operation operation;
  bool waits;
};

// Brings a file into a state, keeps it there, and runs one operation on it.
class StateTable : public RemoteFileTest, public ::testing::WithParamInterface<Case> {
 protected:
  void enter(OFSTransferState state) {
    server.setChunkSize(4);
    server.setStreamCapacity(4);
    switch (state) {
      case kOFSNew:
        server.addFile(kPath, "01234567");
        iHold = server.hold("downloadFileAtPath");
        file = makeFile();
        iOpener = inBackground([this] { return file->openWithMode(kO_RDWR, nullptr); });
        ASSERT_TRUE(iHold->waitUntilHeld());
        waitForWaiters(*file, 1);  // the opener, which is not to be taken for the operation
        return;
      case kOFSDownloading:
        iHold = server.hold("downloadFileAtPath", kPath, 4);
        file = arrivingFile("01234567", 4);
        return;
      case kOFSStreaming:
        iHold = server.hold("streamBytesWithFilename", kPath, 4);
        file = createdFile();
        ASSERT_EQ(write(*file, "0123", 0), 4);
        ASSERT_TRUE(iHold->waitUntilHeld());
        return;
      case kOFSUploading:
        gStreamingSupported = false;
        iHold = server.hold("uploadFileAtPath", kPath, 4);
        file = createdFile();
        ASSERT_EQ(write(*file, "01234567", 0), 8);
        ASSERT_TRUE(iHold->waitUntilHeld());
        return;
      case kOFSSettled:
        file = downloadedFile("01234567");
        return;
    }
  }

  void run(Operation operation) {
    NSFileAttributes change;
    change.posixPermissions = 0644;
    switch (operation) {
      case Operation::kOpen:
        EXPECT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
        return;
      case Operation::kRead:
        EXPECT_NE(read(*file, 8, 0), "<-1>");
        return;
      case Operation::kAttributes:
        EXPECT_EQ(file->attributes().count(), 3u);
        return;
      case Operation::kSetAttributes:
        EXPECT_TRUE(file->setAttributes(change, nullptr));
        return;
      case Operation::kWrite:
        EXPECT_EQ(write(*file, "x", 4), 1);
        return;
      case Operation::kWriteElsewhere:
        EXPECT_EQ(write(*file, "x", 1), 1);
        return;
      case Operation::kTruncate:
        EXPECT_TRUE(file->_truncateToOffset(2, nullptr));
        return;
      case Operation::kClose:
        file->close();
        return;
      case Operation::kSynchronise:
        EXPECT_TRUE(file->synchronize(nullptr));
        return;
    }
  }

  std::shared_ptr<ScriptedHold> iHold;
  std::future<bool> iOpener;
};

TEST_P(StateTable, WaitsOrNot) {
  enter(GetParam().state);
  ASSERT_EQ(file->state(), GetParam().state);
  const size_t before = file->waiterCount();
  auto operation = inBackground([this] { run(GetParam().operation); });
  if (GetParam().waits) {
    waitForWaiters(*file, before + 1);
    EXPECT_TRUE(isRunning(operation));
    const size_t limited = GetParam().operation == Operation::kClose ? 1 : 0;
    EXPECT_EQ(clock->sleepers(), limited) << "closing alone has a limit here";
    EXPECT_EQ(file->state(), GetParam().state);
  } else {
    finish(operation);
  }
  if (iHold) iHold->release();
  if (GetParam().state == kOFSStreaming && GetParam().operation == Operation::kRead) {
    clock->waitForSleepers(1);  // a reader does not end the stream: its idle time does
    clock->advance(6.0);
  }
  if (operation.valid()) finish(operation);
  EXPECT_TRUE(!iOpener.valid() || finish(iOpener));
}

INSTANTIATE_TEST_SUITE_P(
    Operations, StateTable,
    ::testing::Values(Case{"OpenOfANewFileThatIsBeingOpened", kOFSNew, Operation::kOpen, false},
                      Case{"ReadBeforeTheFirstByte", kOFSNew, Operation::kRead, true},
                      Case{"AttributesBeforeTheFirstByte", kOFSNew, Operation::kAttributes, true},
                      Case{"SetAttributesBeforeTheFirstByte", kOFSNew, Operation::kSetAttributes, true},
                      Case{"WriteBeforeTheFirstByte", kOFSNew, Operation::kWrite, true},
                      Case{"TruncateBeforeTheFirstByte", kOFSNew, Operation::kTruncate, true},
                      Case{"CloseBeforeTheFirstByte", kOFSNew, Operation::kClose, false},
                      Case{"SynchroniseBeforeTheFirstByte", kOFSNew, Operation::kSynchronise, false},
                      Case{"OpenWhileDownloading", kOFSDownloading, Operation::kOpen, false},
                      Case{"ReadWhileDownloading", kOFSDownloading, Operation::kRead, true},
                      Case{"AttributesWhileDownloading", kOFSDownloading, Operation::kAttributes, false},
                      Case{"SetAttributesWhileDownloading", kOFSDownloading, Operation::kSetAttributes, true},
                      Case{"WriteWhileDownloading", kOFSDownloading, Operation::kWrite, true},
                      Case{"TruncateWhileDownloading", kOFSDownloading, Operation::kTruncate, true},
                      Case{"CloseWhileDownloading", kOFSDownloading, Operation::kClose, true},
                      Case{"SynchroniseWhileDownloading", kOFSDownloading, Operation::kSynchronise, false},
                      Case{"OpenWhileStreaming", kOFSStreaming, Operation::kOpen, false},
                      Case{"ReadWhileStreaming", kOFSStreaming, Operation::kRead, true},
                      Case{"AttributesWhileStreaming", kOFSStreaming, Operation::kAttributes, false},
                      Case{"SetAttributesWhileStreaming", kOFSStreaming, Operation::kSetAttributes, true},
                      Case{"SequentialWriteWhileStreaming", kOFSStreaming, Operation::kWrite, false},
                      Case{"WriteElsewhereWhileStreaming", kOFSStreaming, Operation::kWriteElsewhere, true},
                      Case{"TruncateWhileStreaming", kOFSStreaming, Operation::kTruncate, true},
                      Case{"CloseWhileStreaming", kOFSStreaming, Operation::kClose, true},
                      Case{"SynchroniseWhileStreaming", kOFSStreaming, Operation::kSynchronise, true},
                      Case{"OpenWhileUploading", kOFSUploading, Operation::kOpen, false},
                      Case{"ReadWhileUploading", kOFSUploading, Operation::kRead, true},
                      Case{"AttributesWhileUploading", kOFSUploading, Operation::kAttributes, false},
                      Case{"SetAttributesWhileUploading", kOFSUploading, Operation::kSetAttributes, true},
                      Case{"WriteElsewhereWhileUploading", kOFSUploading, Operation::kWrite, true},
                      Case{"TruncateWhileUploading", kOFSUploading, Operation::kTruncate, true},
                      Case{"CloseWhileUploading", kOFSUploading, Operation::kClose, true},
                      Case{"SynchroniseWhileUploading", kOFSUploading, Operation::kSynchronise, true},
                      Case{"OpenWhenSettled", kOFSSettled, Operation::kOpen, false},
                      Case{"ReadWhenSettled", kOFSSettled, Operation::kRead, false},
                      Case{"AttributesWhenSettled", kOFSSettled, Operation::kAttributes, false},
                      Case{"SetAttributesWhenSettled", kOFSSettled, Operation::kSetAttributes, false},
                      Case{"WriteWhenSettled", kOFSSettled, Operation::kWrite, false},
                      Case{"TruncateWhenSettled", kOFSSettled, Operation::kTruncate, false},
                      Case{"CloseWhenSettled", kOFSSettled, Operation::kClose, false},
                      Case{"SynchroniseWhenSettled", kOFSSettled, Operation::kSynchronise, false}),
    [](const auto& parameter) { return parameter.param.name; });

}  // namespace
}  // namespace ombra
