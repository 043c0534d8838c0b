// What helpers tell of their transfers, read and put into words.
#include "frontend/TransferStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "frontend/StatusText.h"

namespace ombra {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

json busy() {
  return {
      {"transfers",
       {{{"path", "/in.bin"},
         {"direction", "download"},
         {"done", 250},
         {"size", 1000},
         {"rate", 250},
         {"secondsLeft", 3}},
        {{"path", "/out.bin"},
         {"direction", "upload"},
         {"done", 7},
         {"size", nullptr},
         {"rate", nullptr},
         {"secondsLeft", nullptr}}}},
      {"waiting", {{{"path", "/w.txt"}, {"bytes", 12}, {"error", "The disk is full."}}}},
      {"transferCount", 2},
      {"waitingCount", 1},
      {"waitingBytes", 12},
      {"bytesReceived", 250},
      {"bytesSent", 7},
      {"cache", {{"used", 1500}, {"budget", 10000000000}}},
      {"lastError", {{"path", "/w.txt"}, {"text", "The disk is full."}, {"date", "2001-09-09T01:46:40Z"}}}};
}

Volume volumeOf(const json& status, const std::string& state = "mounted") {
  Volume volume;
  volume.name = "Photos";
  volume.mountPath = "/Volumes/Photos";
  volume.protocol = "sftp";
  volume.username = "anna";
  volume.address = "nas";
  volume.state = state;
  volume.statusJSON = status.is_null() ? "" : status.dump();
  return volume;
}

TEST(TransferStatus, IsReadFromAHelpersAnswer) {
  const auto status = parseTransferStatus(busy().dump());
  ASSERT_TRUE(status);
  ASSERT_EQ(status->transfers.size(), 2U);
  EXPECT_EQ(status->transfers[0].path, "/in.bin");
  EXPECT_FALSE(status->transfers[0].isUpload);
  EXPECT_EQ(status->transfers[0].done, 250U);
  EXPECT_EQ(status->transfers[0].size, 1000U);
  EXPECT_EQ(status->transfers[0].rate, 250U);
  EXPECT_EQ(status->transfers[0].secondsLeft, 3U);
  EXPECT_TRUE(status->transfers[1].isUpload);
  EXPECT_EQ(status->transfers[1].size, std::nullopt);
  ASSERT_EQ(status->waiting.size(), 1U);
  EXPECT_EQ(status->waiting[0].error, "The disk is full.");
  EXPECT_EQ(status->bytesSent, 7U);
  EXPECT_EQ(status->cacheUsed, 1500U);
  ASSERT_TRUE(status->lastError);
  EXPECT_EQ(status->lastError->date, "2001-09-09T01:46:40Z");
  EXPECT_THAT(status->unsentPaths(), ElementsAre("/out.bin", "/w.txt"));
  EXPECT_EQ(status->unsentCount(), 2U);
}

TEST(TransferStatus, IsAbsentWhereAHelperTellsNothingOfTransfers) {
  for (const char* text : {"", "{", "[]", "{}", R"({"transfers":7})", R"({"volumeName":"Photos"})"})
    EXPECT_FALSE(parseTransferStatus(text)) << text;
}

TEST(TransferStatus, MembersOfTheWrongTypeCountAsAbsent) {
  const auto status = parseTransferStatus(
      R"({"transfers":[7,{"path":1,"done":-5,"size":"x","rate":1.5}],"waiting":{"a":1},"waitingCount":"many",)"
      R"("cache":[],"lastError":"none","bytesSent":-1})");
  ASSERT_TRUE(status);
  ASSERT_EQ(status->transfers.size(), 1U);
  EXPECT_EQ(status->transfers[0].path, "");
  EXPECT_EQ(status->transfers[0].done, 0U);
  EXPECT_EQ(status->transfers[0].size, std::nullopt);
  EXPECT_EQ(status->transfers[0].rate, std::nullopt);
  EXPECT_THAT(status->waiting, IsEmpty());
  EXPECT_EQ(status->waitingCount, 0U);
  EXPECT_EQ(status->bytesSent, 0U);
  EXPECT_FALSE(status->lastError);
}

TEST(TransferStatus, CountsFilesThatTheListsHaveNoRoomFor) {
  json object = busy();
  object["waitingCount"] = 500;
  EXPECT_EQ(parseTransferStatus(object.dump())->unsentCount(), 501U);
}

TEST(StatusText, BytesAreToldInPowersOfAThousand) {
  const std::pair<uint64_t, const char*> kCases[] = {{0, "0 bytes"},
                                                     {1, "1 byte"},
                                                     {999, "999 bytes"},
                                                     {1000, "1.0 kB"},
                                                     {999949, "999.9 kB"},
                                                     {999950, "1.0 MB"},
                                                     {26500000, "26.5 MB"},
                                                     {10737418240, "10.7 GB"},
                                                     {std::numeric_limits<uint64_t>::max(), "18.4 EB"}};
  for (const auto& [bytes, text] : kCases) EXPECT_EQ(bytesText(bytes), text);
}

TEST(StatusText, DurationsAreToldInMinutesAndHours) {
  EXPECT_EQ(durationText(0), "0:00");
  EXPECT_EQ(durationText(7), "0:07");
  EXPECT_EQ(durationText(754), "12:34");
  EXPECT_EQ(durationText(3723), "1:02:03");
  EXPECT_EQ(durationText(360000), "100:00:00");
}

TEST(StatusText, ABarIsFullOnlyAtTheEnd) {
  EXPECT_EQ(progressBar(0, 100, 7), "[.....]");
  EXPECT_EQ(progressBar(50, 100, 7), "[##...]");
  EXPECT_EQ(progressBar(99, 100, 7), "[####.]");
  EXPECT_EQ(progressBar(100, 100, 7), "[#####]");
  EXPECT_EQ(progressBar(0, 0, 7), "[#####]");
  EXPECT_EQ(progressBar(1, 2, 0), "[.]");
  const uint64_t huge = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(progressBar(huge / 2, huge, 6), "[##..]");
}

TEST(StatusText, ALongPathLosesItsBeginning) {
  EXPECT_EQ(shortenedPath("/a/b.txt", 8), "/a/b.txt");
  EXPECT_EQ(shortenedPath("/a/b.txt", 6), "…b.txt");
  EXPECT_EQ(shortenedPath("/äöü.txt", 6), "…ü.txt") << "never in the middle of a character";
  EXPECT_EQ(shortenedPath("/a/b.txt", 1), "…");
  EXPECT_EQ(shortenedPath("/a/b.txt", 0), "");
}

TEST(StatusText, OfATerminalHasBarsAndOneLineForEachThing) {
  const auto lines = statusBlock(volumeOf(busy()), 100);
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0], "Photos  /Volumes/Photos  sftp anna@nas");
  EXPECT_THAT(lines[1], HasSubstr("↓ /in.bin"));
  EXPECT_THAT(lines[1], HasSubstr("[###.........]  25 %  250 bytes of 1.0 kB  250 bytes/s  0:03 left"));
  EXPECT_THAT(lines[2], HasSubstr("↑ /out.bin"));
  EXPECT_THAT(lines[2], Not(HasSubstr("["))) << "without an end there is no bar";
  EXPECT_EQ(lines[3], "  not on the server yet: 1 file, 12 bytes");
  EXPECT_EQ(lines[4], "    /w.txt  12 bytes: The disk is full.");
  EXPECT_EQ(lines[5], "  cache 1.5 kB of 10.0 GB");
  EXPECT_EQ(lines[6], "  last error, 2001-09-09T01:46:40Z: /w.txt: The disk is full.");
}

TEST(StatusText, OfAProgramHasLinesThatStandForThemselves) {
  EXPECT_THAT(
      statusLines(volumeOf(busy())),
      ElementsAre("Photos: fetching /in.bin: 25 %, 250 bytes of 1.0 kB, 250 bytes/s, 0:03 left",
                  "Photos: sending /out.bin: 7 bytes", "Photos: waiting /w.txt: 12 bytes: The disk is full.",
                  "Photos: not on the server yet: 1 file, 12 bytes", "Photos: cache 1.5 kB of 10.0 GB",
                  "Photos: last error, 2001-09-09T01:46:40Z: /w.txt: The disk is full."));
}

TEST(StatusText, OfAVolumeAtRestSaysThatAllIsOnTheServer) {
  const json rest = {{"transfers", json::array()}, {"cache", {{"used", 0}, {"budget", 1000}}}};
  EXPECT_THAT(statusLines(volumeOf(rest)),
              ElementsAre("Photos: everything is on the server", "Photos: cache 0 bytes of 1.0 kB"));
  EXPECT_THAT(statusBlock(volumeOf(rest), 80)[1], HasSubstr("everything is on the server"));
}

TEST(StatusText, OfAHelperThatSaysNothingIsItsState) {
  EXPECT_THAT(statusLines(volumeOf(nullptr, "not answering")), ElementsAre("Photos: not answering"));
  EXPECT_THAT(statusBlock(volumeOf(nullptr, "dead"), 80),
              ElementsAre("Photos  /Volumes/Photos  sftp anna@nas  (dead)"));
}

TEST(StatusText, OfAVolumeThatIsLeavingSaysSo) {
  EXPECT_THAT(statusLines(volumeOf(busy(), "unmounting")), testing::Contains("Photos: unmounting"));
  EXPECT_THAT(statusBlock(volumeOf(busy(), "unmounting"), 80)[0], HasSubstr("(unmounting)"));
}

TEST(StatusText, SaysWhatATransferWaitsFor) {
  TransferStatus::Transfer transfer{"/a", true, 500, 1000, 0, {}};
  EXPECT_THAT(transferLine(transfer, 80), HasSubstr("50 %  500 bytes of 1.0 kB  stalled"));
  transfer.done = 1000;
  EXPECT_THAT(transferLine(transfer, 80), HasSubstr("100 %  1.0 kB of 1.0 kB  waiting for the server"));
}

TEST(StatusText, IsNeverFullBeforeTheEnd) {
  const TransferStatus::Transfer transfer{"/a", true, 999999, 1000000, 1, {}};
  EXPECT_THAT(transferLine(transfer, 80), HasSubstr(" 99 %"));
}

// A server chooses names and words.
TEST(StatusText, LetsNoForeignTextMoveTheCursor) {
  json object = busy();
  for (const char* list : {"transfers", "waiting"}) object[list][0]["path"] = "/\x1b[2J\n\u009b";
  object["waiting"][0]["error"] = "\x1b]0;x\x07";
  object["lastError"] = {{"path", "\x1b"}, {"text", "\r"}, {"date", "\x1b"}};
  Volume volume = volumeOf(object, "\x1b");
  volume.name = "\x1b[H";
  for (const auto& lines : {statusBlock(volume, 80), statusLines(volume)}) {
    for (const std::string& line : lines) {
      EXPECT_EQ(line.find_first_of("\x1b\x07\r\n"), std::string::npos) << line;
      EXPECT_EQ(line.find("\u009b"), std::string::npos) << line;
    }
  }
}

TEST(StatusText, OfManyWaitingFilesShowsSomeAndCountsTheRest) {
  json object = busy();
  object["waiting"] = json::array();
  for (int i = 0; i < 30; ++i)
    object["waiting"].push_back({{"path", "/w"}, {"bytes", 1}, {"error", nullptr}});
  object["waitingCount"] = 400;
  EXPECT_THAT(statusBlock(volumeOf(object), 80), testing::Contains("    and 390 more"));
}

}  // namespace
}  // namespace ombra
