// Many threads on one file, with and without failures: in the end the server has what was written.

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

struct Way {
  const char* name;
  uint32_t protocol;
  bool streaming;
  bool failing;
};

// Each writer has a region of its own, so that the end result does not depend on their order.
class ManyThreads : public RemoteFileTest, public ::testing::WithParamInterface<Way> {
 protected:
  static constexpr size_t kRegion = 40000;
  static constexpr int kWriters = 3;
  static constexpr int kWrites = 40;

  ManyThreads() : RemoteFileTest(GetParam().protocol) {}

  void SetUp() override {
    RemoteFileTest::SetUp();
    clock.reset();
    gStreamingSupported = GetParam().streaming;
    server.setChunkSize(7000);
    server.setStreamCapacity(5000);
    if (GetParam().failing) {
      server.setObserver([this](const ScriptedCall& call) {
        const bool transfer = call.name == "uploadFileAtPath" || call.name == "uploadFileHandle" ||
                              call.name == "streamBytesWithFilename";
        if (!transfer || ++iTransfers % 3 != 0) return;
        server.failAfter(call.name, kPath, 5000, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
      });
    }
  }

  void writeRegion(int writer) {
    std::mt19937 random(static_cast<unsigned>(writer) + 1);
    for (int i = 0; i < kWrites; ++i) {
      const size_t begin = random() % (kRegion - 1000);
      const size_t length = 1 + random() % 1000;
      const std::string bytes(length, static_cast<char>('a' + (writer * kWrites + i) % 26));
      const size_t at = static_cast<size_t>(writer) * kRegion + begin;
      // Also a write that fails to be sent is in the cache file.
      const int count = write(*file, bytes, static_cast<int64_t>(at));
      EXPECT_TRUE(GetParam().failing || count == static_cast<int>(length)) << count;
      // Regions are disjoint: no two threads touch the same bytes.
      std::copy(bytes.begin(), bytes.end(), iExpected.data() + at);
    }
  }

  // What readers and others do meanwhile; none of it may disturb the writers.
  void disturb() {
    std::mt19937 random(99);
    while (!iDone) {
      switch (random() % 4) {
        case 0:
          (void)read(*file, 3000, static_cast<int64_t>(random() % (kRegion * kWriters)));
          break;
        case 1:
          (void)file->attributes();
          break;
        case 2:
          (void)file->isCovered();
          break;
        default:
          (void)file->synchronize(nullptr);
      }
      if (GetParam().streaming) gStreamingSupported = true;  // after a fallback
    }
  }

  std::string iExpected = std::string(kRegion * kWriters, '.');
  std::atomic<bool> iDone{false};
  std::atomic<int> iTransfers{0};
};

TEST_P(ManyThreads, LoseNothing) {
  file = downloadedFile(iExpected);
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) writers.emplace_back([this, i] { writeRegion(i); });
  std::thread disturber([this] { disturb(); });
  for (std::thread& writer : writers) writer.join();
  iDone = true;
  (void)file->synchronize(nullptr);  // else its last read may wait until the stream is idle
  disturber.join();
  server.setObserver({});
  server.stopFailing();
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_TRUE(file->isCovered());
  EXPECT_EQ(onServer(), iExpected);
  EXPECT_EQ(read(*file, iExpected.size(), 0), iExpected);
}

TEST_P(ManyThreads, TruncatingAndClosingMeanwhileEndWithTheSameBytesOnBothSides) {
  file = downloadedFile(iExpected);
  std::thread truncater([this] {
    for (int i = 0; i < 10; ++i)
      (void)file->_truncateToOffset(static_cast<int64_t>(kRegion) * (1 + i % 3), nullptr);
  });
  std::thread closer([this] {
    for (int i = 0; i < 10; ++i) {
      try {
        file->close();
      } catch (const KCException&) {
        // Failures of the server.
      }
    }
  });
  writeRegion(0);
  truncater.join();
  closer.join();
  server.setObserver({});
  server.stopFailing();
  EXPECT_TRUE(file->synchronize(nullptr));
  const NSData data = file->data();
  EXPECT_EQ(onServer(), std::string(data.begin(), data.end()));
  EXPECT_TRUE(file->isCovered());
}

TEST_P(ManyThreads, AbandonedInTheMiddleSendNothingAfterwards) {
  file = downloadedFile(iExpected);
  std::thread writer([this] { writeRegion(0); });
  std::thread abandoner([this] { file->abandon(); });
  abandoner.join();
  const std::string before = onServer();
  writer.join();
  file->close();
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), before);
}

INSTANTIATE_TEST_SUITE_P(Ways, ManyThreads,
                         ::testing::Values(Way{"InPlace", kProtocolSFTP, true, false},
                                           Way{"InPlaceFailing", kProtocolSFTP, true, true},
                                           Way{"Streaming", kProtocolWebDAV, true, false},
                                           Way{"StreamingFailing", kProtocolWebDAV, true, true},
                                           Way{"WholeFileUploads", kProtocolWebDAV, false, false},
                                           Way{"WholeFileUploadsFailing", kProtocolWebDAV, false, true}),
                         [](const auto& parameter) { return parameter.param.name; });

}  // namespace
}  // namespace ombra
