// The log of the conversation with the server.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/foundation/NSDateFormatter.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSThread.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::StartsWith;

class Transcript : public FileSystemTest {
 protected:
  Transcript() : path(std::string(getenv("OMBRAFS_TMPDIR")) + "/transcript.log") {
    std::filesystem::remove(path);
  }
  std::string content() const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static std::string header() {
    return "\xEF\xBB\xBF" + NSProcessInfo::processName() + " " OMBRA_VERSION " (" +
           NSProcessInfo::kc_architectureString() + ") [Mac OS " +
           NSProcessInfo::operatingSystemVersionString() + "]\n";
  }
  std::string time() const { return NSDateFormatter("HH:mm:ss.SSS").stringFromDate(clock.now()); }
  const std::string path;
  const KCUUID uuid = *KCUUID::uuidWithString("6FA459EA-EE8A-4CA4-894E-DB77E160355E");
};

TEST_F(Transcript, BeginsWithAMarkAndAHeader) {
  ASSERT_NE(fileSystem.openTranscriptLogAtPath(path), nullptr);
  EXPECT_EQ(content(), header());
}

TEST_F(Transcript, OpenedTwiceGainsASecondMarkAndHeader) {
  ASSERT_NE(fileSystem.openTranscriptLogAtPath(path), nullptr);
  ASSERT_NE(fileSystem.openTranscriptLogAtPath(path), nullptr);
  EXPECT_EQ(content(), header() + header());
}

TEST_F(Transcript, ThatCannotBeOpenedIsNone) {
  EXPECT_EQ(fileSystem.openTranscriptLogAtPath("/proc/nowhere/x.log"), nullptr);
  fileSystem.connectionUUID(uuid, "USER anna\r\n", true);
  fileSystem.connectionUUIDFlushTranscript(uuid);
}

TEST_F(Transcript, ALineHasTheIdentifiersLastPartTheTimeTheDirectionAndTheText) {
  fileSystem.openTranscriptLogAtPath(path);
  clock.advance(0.25);
  fileSystem.connectionUUID(uuid, "USER anna\r\n", true);
  fileSystem.connectionUUID(uuid, "331 go on\r\n", false);
  fileSystem.connectionUUIDFlushTranscript(uuid);
  EXPECT_EQ(content(), header() + "DB77E160355E " + time() + " > USER anna\r\n" + "DB77E160355E " + time() +
                           " < 331 go on\r\n");
}

TEST_F(Transcript, NoLineEndIsAdded) {
  fileSystem.openTranscriptLogAtPath(path);
  fileSystem.connectionUUID(uuid, "a", true);
  fileSystem.connectionUUIDFlushTranscript(uuid);
  EXPECT_EQ(content(), header() + "DB77E160355E " + time() + " > a");
}

TEST_F(Transcript, IsNotFlushedUntilAsked) {
  fileSystem.openTranscriptLogAtPath(path);
  fileSystem.connectionUUID(uuid, "a\n", true);
  EXPECT_EQ(content(), header());
  fileSystem.connectionUUIDFlushTranscript(uuid);
  EXPECT_NE(content(), header());
}

TEST_F(Transcript, ReceivesWhatThePoolsSessionsSay) {
  fileSystem.openTranscriptLogAtPath(path);
  server.appendTranscript("hello\n", false);
  server.flushTranscript();
  EXPECT_THAT(content().substr(header().size()), ::testing::EndsWith(time() + " < hello\n"));
}

TEST_F(Transcript, IsClosedWithTheFileSystem) {
  {
    OmbraFileSystem other;
    other.openTranscriptLogAtPath(path);
    other.connectionUUID(uuid, "last words\n", true);
  }
  EXPECT_THAT(content(), ::testing::EndsWith("last words\n"));
}

TEST_F(Transcript, ReceivesNothingAfterTheEndOfTheFileSystem) {
  {
    OmbraFileSystem other;
    other.setConnectionPool(server.pool());
    other.openTranscriptLogAtPath(path);
    server.appendTranscript("bye\n", true);
  }
  EXPECT_EQ(server.transcriptDelegate(), nullptr);
  server.appendTranscript("too late\n", false);
  EXPECT_THAT(content(), ::testing::EndsWith(" > bye\n"));
}

TEST_F(Transcript, EachThreadKeepsItsFormatterInItsDictionary) {
  fileSystem.openTranscriptLogAtPath(path);
  std::thread([this] {
    EXPECT_FALSE(NSThread::threadDictionary("OFSDateFormatter").has_value());
    fileSystem.connectionUUID(uuid, "a\n", true);
    EXPECT_NE(std::any_cast<NSDateFormatter>(&NSThread::threadDictionary("OFSDateFormatter")), nullptr);
  }).join();
}

TEST_F(Transcript, LinesOfSeveralThreadsDoNotMix) {
  fileSystem.openTranscriptLogAtPath(path);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this, thread] {
      for (int line = 0; line < 200; ++line) {
        fileSystem.connectionUUID(uuid, std::string(50, static_cast<char>('a' + thread)) + "\n", true);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  fileSystem.connectionUUIDFlushTranscript(uuid);
  std::ifstream file(path, std::ios::binary);
  std::string line;
  std::getline(file, line);
  const std::string start = "DB77E160355E " + time() + " > ";
  size_t count = 0;
  while (std::getline(file, line)) {
    ++count;
    ASSERT_THAT(line, StartsWith(start));
    const std::string text = line.substr(start.size());
    ASSERT_EQ(text, std::string(50, text[0]));
  }
  EXPECT_EQ(count, 800u);
}

}  // namespace
}  // namespace ombra
