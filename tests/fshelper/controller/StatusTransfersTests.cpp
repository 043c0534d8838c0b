// The transfers of a volume: what the file system reports of them, and the members of the status object.
#include "fshelper/OFSStatusTransfers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>

#include "remote/QuarnKitError.h"
#include "tests/fshelper/controller/ControllerFixture.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using nlohmann::json;
using Direction = OFSTransferRecord::Direction;

json membersOf(const OFSTransferReport& report) {
  json status = json::object();
  addTransferReport(report, &status);
  return status;
}

TEST(StatusTransfers, NameEachTransferWithWhatIsLeft) {
  OFSTransferReport report;
  report.transfers = {{"/a", Direction::kDownload, 100, 1000, 250}, {"/b", Direction::kUpload, 7, {}, {}}};
  const json status = membersOf(report);
  EXPECT_EQ(status["transfers"], json::array({{{"path", "/a"},
                                               {"direction", "download"},
                                               {"done", 100},
                                               {"size", 1000},
                                               {"rate", 250},
                                               {"secondsLeft", 4}},
                                              {{"path", "/b"},
                                               {"direction", "upload"},
                                               {"done", 7},
                                               {"size", nullptr},
                                               {"rate", nullptr},
                                               {"secondsLeft", nullptr}}}));
  EXPECT_EQ(status["transferCount"], 2);
}

TEST(StatusTransfers, OfOneThatStandsStillNobodyKnowsHowLong) {
  OFSTransferReport report;
  report.transfers = {{"/a", Direction::kUpload, 100, 1000, 0}};
  EXPECT_EQ(membersOf(report)["transfers"][0]["rate"], 0);
  EXPECT_EQ(membersOf(report)["transfers"][0]["secondsLeft"], nullptr);
}

TEST(StatusTransfers, NameWhatWaitsAndAddItUp) {
  OFSTransferReport report;
  report.waiting = {{"/a", 10, ""}, {"/b", 20, "The disk is full."}};
  const json status = membersOf(report);
  EXPECT_EQ(status["waiting"],
            json::array({{{"path", "/a"}, {"bytes", 10}, {"error", nullptr}},
                         {{"path", "/b"}, {"bytes", 20}, {"error", "The disk is full."}}}));
  EXPECT_EQ(status["waitingCount"], 2);
  EXPECT_EQ(status["waitingBytes"], 30);
}

TEST(StatusTransfers, TellSumsCacheAndTheLastError) {
  OFSTransferReport report;
  report.received = 1;
  report.sent = 2;
  report.cacheUsed = 3;
  report.cacheBudget = 4;
  report.lastFailure = {"/a", "gone", NSDate::dateWithTimeIntervalSince1970(1000000000)};
  const json status = membersOf(report);
  EXPECT_EQ(status["bytesReceived"], 1);
  EXPECT_EQ(status["bytesSent"], 2);
  EXPECT_EQ(status["cache"], (json{{"used", 3}, {"budget", 4}}));
  EXPECT_EQ(status["lastError"], (json{{"path", "/a"}, {"text", "gone"}, {"date", "2001-09-09T01:46:40Z"}}));
}

TEST(StatusTransfers, OfThousandsFitIntoOneAnswerAndAreCountedAll) {
  OFSTransferReport report;
  const std::string text(100000, '\x01');
  for (int i = 0; i < 5000; ++i) {
    report.transfers.push_back({"/folder/" + std::to_string(i), Direction::kUpload, 0, 1, 1});
    report.waiting.push_back({"/folder/\xFF" + std::to_string(i), 1, i == 0 ? text : ""});
  }
  report.lastFailure = {"/a", text, NSDate()};
  const json status = membersOf(report);
  EXPECT_LT(status.dump(-1, ' ', false, json::error_handler_t::replace).size(), 60000u);
  EXPECT_GT(status["transfers"].size(), 100u);
  EXPECT_GT(status["waiting"].size(), 100u);
  EXPECT_EQ(status["transferCount"], 5000);
  EXPECT_EQ(status["waitingCount"], 5000);
  EXPECT_EQ(status["waitingBytes"], 5000);
}

// A mounted volume whose transfers are held in the server.
class TransferReport : public ControllerTest {
 protected:
  void mountVolume() {
    launch(arguments());
    postDidMount();
    fileSystem->willMount();
  }
  GMUserData open(std::string_view path, int mode = kO_RDWR) {
    GMUserData data;
    EXPECT_TRUE(fileSystem->openFileAtPath(path, mode, &data, nullptr));
    return data;
  }
  OFSTransferReport report() const { return controller->transferReport(); }
  // Ends what a test opened.
  void release(std::string_view path, GMUserData& data) {
    fileSystem->releaseFileAtPath(path, data);
    data.reset();
  }
};

TEST_F(TransferReport, OfADownloadKnowsTheSizeFromTheListing) {
  server.addFile("/docs/a.bin", "0123456789");
  mountVolume();
  const auto hold = server.hold("downloadFileAtPath", "/docs/a.bin", 4);
  GMUserData data = open("/docs/a.bin", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto told = report();
  ASSERT_EQ(told.transfers.size(), 1u);
  EXPECT_EQ(told.transfers[0].path, "/docs/a.bin");
  EXPECT_EQ(told.transfers[0].direction, Direction::kDownload);
  EXPECT_EQ(told.transfers[0].done, 4u);
  EXPECT_EQ(told.transfers[0].size, 10u);
  EXPECT_EQ(told.received, 4u);
  hold->release();
  release("/docs/a.bin", data);
  EXPECT_TRUE(report().transfers.empty());
  EXPECT_GT(report().cacheUsed, 0u) << "the copy stays";
}

// The write holds the file's condition until the server has answered.
TEST_F(TransferReport, IsMadeWhileAWriteInPlaceHoldsTheFile) {
  server.addFile("/docs/a.bin", "0123456789");
  mountVolume();
  GMUserData data = open("/docs/a.bin");
  const auto hold = server.hold("uploadFileHandle", "/docs/a.bin");
  auto writer = std::async(std::launch::async, [&] {
    return fileSystem->writeFileAtPath("/docs/a.bin", data, "XY", 2, 4, nullptr);
  });
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto told = report();
  ASSERT_EQ(told.transfers.size(), 1u);
  EXPECT_EQ(told.transfers[0].direction, Direction::kUpload);
  EXPECT_EQ(told.transfers[0].size, std::nullopt);
  EXPECT_TRUE(told.waiting.empty()) << "it is being sent";
  hold->release();
  EXPECT_EQ(writer.get(), 2);
  EXPECT_EQ(report().sent, 2u);
  release("/docs/a.bin", data);
}

TEST_F(TransferReport, NamesAFileThatTheServerRefusedWithItsSizeAndTheReason) {
  server.setSupportsUploadByteOffset(false);
  server.addFile("/docs/a.bin", "0123456789");
  mountVolume();
  GMUserData data = open("/docs/a.bin");
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  server.failAlways("streamBytesWithFilename", kAnyPath, full);
  server.failAlways("uploadFileAtPath", kAnyPath, full);
  (void)fileSystem->writeFileAtPath("/docs/a.bin", data, "XY", 2, 0, nullptr);
  EXPECT_FALSE(fileSystem->synchronizeFileAtPath("/docs/a.bin", data, nullptr));
  const auto told = report();
  EXPECT_TRUE(told.transfers.empty());
  ASSERT_EQ(told.waiting.size(), 1u);
  EXPECT_EQ(told.waiting[0].path, "/docs/a.bin");
  EXPECT_EQ(told.waiting[0].bytes, 10u);
  EXPECT_EQ(told.waiting[0].failure, full->localizedDescription());
  ASSERT_TRUE(told.lastFailure);
  EXPECT_EQ(told.lastFailure->path, "/docs/a.bin");
  server.stopFailing();
  EXPECT_TRUE(fileSystem->synchronizeFileAtPath("/docs/a.bin", data, nullptr));
  EXPECT_TRUE(report().waiting.empty());
  EXPECT_TRUE(report().lastFailure) << "it is the last one all the same";
  gStreamingSupported = true;
  release("/docs/a.bin", data);
}

TEST_F(TransferReport, NamesWhatWasSentInPlaceAndIsNotAcknowledged) {
  ManualClock clock;
  server.addFile("/docs/a.bin", "0123456789");
  mountVolume();
  GMUserData data = open("/docs/a.bin");
  ASSERT_EQ(fileSystem->writeFileAtPath("/docs/a.bin", data, "XY", 2, 4, nullptr), 2);
  const auto file = std::dynamic_pointer_cast<OFSRemoteFile>(data);
  file->fileHandle()->extents()->beginSending();
  clock.advance(10);
  ASSERT_EQ(report().waiting.size(), 1u);
  EXPECT_EQ(report().waiting[0].path, "/docs/a.bin");
  file->fileHandle()->extents()->endSending(nullptr);
  EXPECT_TRUE(report().waiting.empty());
  release("/docs/a.bin", data);
}

TEST_F(TransferReport, FollowsAFileThatIsMoved) {
  server.setSupportsUploadByteOffset(false);
  server.addFile("/docs/a.bin", "0123456789");
  mountVolume();
  const auto hold = server.hold("downloadFileAtPath", "/docs/a.bin", 4);
  GMUserData data = open("/docs/a.bin", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  std::dynamic_pointer_cast<OFSRemoteFile>(data)->setRemotePath("/docs/b.bin");
  ASSERT_EQ(report().transfers.size(), 1u);
  EXPECT_EQ(report().transfers[0].path, "/docs/b.bin");
  hold->release();
  release("/docs/b.bin", data);
}

TEST_F(TransferReport, BeforeThereIsAFileSystemIsEmpty) {
  controller = std::make_unique<OFSController>(environment);
  EXPECT_TRUE(report().transfers.empty());
  EXPECT_EQ(report().cacheBudget, 0u);
}

}  // namespace
}  // namespace ombra
