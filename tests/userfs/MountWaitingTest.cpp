// Content that is still arriving, and many who wait for it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

using ShortReadTest = MountTest;

TEST_F(ShortReadTest, WhatIsStillArrivingIsWaitedFor) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kArriving, 4);
  mount();
  std::optional<std::string> content;
  std::thread reader([&] { content = contentOfFile(at("/a")); });
  iFiles.waitForCalls("waitForContent (none) 4", 1);
  iFiles.setContentState("/a", GMContentState::kArriving, 7);
  iFiles.waitForCalls("waitForContent (none) 7", 1);
  iFiles.setContentState("/a", GMContentState::kComplete, 10);
  reader.join();
  EXPECT_EQ(content, "0123456789");
}

TEST_F(ShortReadTest, AFailedDownloadIsAnErrorAndNeverASilentEnd) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kFailed, 4);
  mount();
  const File file(at("/a"), O_RDONLY);
  char buffer[16];
  EXPECT_EQ(errnoOf([&] { return static_cast<int>(read(file.get(), buffer, sizeof buffer)); }), EIO);
}

TEST_F(ShortReadTest, ADownloadThatFailsWhileItIsWaitedForIsAnError) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kArriving, 4);
  mount();
  std::optional<std::string> content = "untouched";
  std::thread reader([&] { content = contentOfFile(at("/a")); });
  iFiles.waitForCalls("waitForContent", 1);
  iFiles.setContentState("/a", GMContentState::kFailed, 4);
  reader.join();
  EXPECT_EQ(content, std::nullopt);
}

TEST_F(ShortReadTest, ACompleteFileReallyIsShorter) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kComplete, 4);
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "0123");
}

// As for a file that another client has removed and a listing has noticed.
TEST_F(ShortReadTest, WhatIsArrivingIsWaitedForAlsoWhenNothingTellsItsSize) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kArriving, 4);
  mount();
  const File file(at("/a"), O_RDONLY);
  iFiles.failWith("attributes", kENOENT);
  std::string content(16, '\0');
  std::thread reader([&] {
    const ssize_t count = read(file.get(), content.data(), content.size());
    content.resize(count < 0 ? 0 : static_cast<size_t>(count));
  });
  iFiles.waitForCalls("waitForContent (none) 4", 1);
  iFiles.setContentState("/a", GMContentState::kComplete, 10);
  reader.join();
  EXPECT_EQ(content, "0123456789");
}

TEST_F(ShortReadTest, AFailedDownloadIsAnErrorAlsoWhenNothingTellsTheSize) {
  iFiles.addFile("/a", "0123456789");
  iFiles.setContentState("/a", GMContentState::kFailed, 4);
  mount();
  const File file(at("/a"), O_RDONLY);
  iFiles.failWith("attributes", kENOENT);
  char buffer[16];
  EXPECT_EQ(errnoOf([&] { return static_cast<int>(read(file.get(), buffer, sizeof buffer)); }), EIO);
}

TEST_F(ShortReadTest, WhatArrivesBetweenTheReadAndTheQuestionIsNotLost) {
  class Finishing : public DurableMemoryFileSystem {
   public:
    GMContentState contentStateOfFile(const GMUserData&) override {
      setContentState("/a", GMContentState::kComplete, 10);
      return GMContentState::kComplete;
    }
  } files;
  files.addFile("/a", "0123456789");
  files.setContentState("/a", GMContentState::kArriving, 4);
  mountDelegate(&files);
  EXPECT_EQ(contentOfFile(at("/a")), "0123456789");
  iFileSystem.reset();
}

TEST_F(ShortReadTest, AReadThatReachesThePromisedSizeAsksNothing) {
  iFiles.addFile("/a", "0123456789");
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "0123456789");
  EXPECT_EQ(iFiles.countOf("contentState"), 0u);
}

class StarvationTest : public MountTest {
 protected:
  static constexpr size_t kReaders = 300;

  // Readers of as many files, each held in the delegate.
  void startReaders() {
    for (size_t i = 0; i < kReaders; ++i) {
      iReaders.emplace_back([this, i] { contentOfFile(at("/slow/" + std::to_string(i))); });
    }
    iFiles.waitUntilHeld(kReaders);
  }
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    iFiles.addFolder("/slow");
    iFiles.addFolder("/other");
    iFiles.addFile("/other/file", "quick");
    for (size_t i = 0; i < kReaders; ++i) {
      iFiles.addFile("/slow/" + std::to_string(i), "content");
      iFiles.hold("read", "/slow/" + std::to_string(i));
    }
    mount();
  }
  void TearDown() override {
    for (size_t i = 0; i < kReaders; ++i) iFiles.letGo("read", "/slow/" + std::to_string(i));
    for (std::thread& reader : iReaders) reader.join();
    MountTest::TearDown();
  }

  std::vector<std::thread> iReaders;
};

TEST_F(StarvationTest, ListingsAndAttributesAnswerWhileThreeHundredReadersAreBlocked) {
  startReaders();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    struct stat attributes {};
    EXPECT_EQ(stat(at("/nowhere" + std::to_string(i)).c_str(), &attributes), -1);
  }
  EXPECT_EQ(namesIn(at("/other")), (std::vector<std::string>{"file"}));
  // Blocked readers would hold this for ever.
  const auto taken = std::chrono::steady_clock::now() - start;
  RecordProperty("microseconds",
                 static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(taken).count()));
}

TEST_F(StarvationTest, AnotherFileIsReadAndWrittenWhileThreeHundredReadersAreBlocked) {
  startReaders();
  EXPECT_EQ(contentOfFile(at("/other/file")), "quick");
  File file(at("/other/new"), O_CREAT | O_WRONLY);
  EXPECT_EQ(write(file.get(), "x", 1), 1);
  EXPECT_EQ(file.close(), 0);
}

TEST_F(StarvationTest, AFolderIsRenamedWhileReadersBelowItAreBlocked) {
  startReaders();
  EXPECT_EQ(rename(at("/slow").c_str(), at("/renamed").c_str()), 0);
  struct stat attributes {};
  EXPECT_EQ(stat(at("/renamed/7").c_str(), &attributes), 0);
}

}  // namespace
}  // namespace ombra
