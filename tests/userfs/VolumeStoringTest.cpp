// Writes past the kernel's pages, and who is told that what was written is stored: closes, truncations,
// refused removals.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>  // NOLINT: kill
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include "platform/userfs/RequestContext.h"
#include "platform/userfs/Volume.h"
#include "tests/userfs/MemoryFileSystem.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;

constexpr uint32_t kMakeNode = 8;  // the kernel's number of that request

class VolumeStoring : public ::testing::Test {
 protected:
  void TearDown() override { iVolume->closers().waitUntilIdle(); }

  uint64_t create(const char* path, pid_t process = 0) {
    OpenedFile opened;
    EXPECT_EQ(iVolume->create(path, 0644, O_WRONLY, process, &opened), 0);
    RequestContext::current() = RequestContext();
    return opened.handle;
  }
  uint64_t open(const char* path, int flags) {
    OpenedFile opened;
    EXPECT_EQ(iVolume->open(path, flags, 0, &opened), 0);
    return opened.handle;
  }
  // What is dropped, and when, while a handle that only writes does and another one is open.
  std::vector<std::string> dropsOfAWriteBeside(int flagsOfOther) {
    iFiles.addFile("/a", "content");
    RequestContext::current().nodeID = 7;
    const uint64_t writer = open("/a", O_WRONLY);
    open("/a", flagsOfOther);
    RequestContext::current() = RequestContext();
    std::vector<std::string> drops;
    const auto drop = [&](uint64_t node, off_t offset, size_t length) {
      drops.push_back(
          fmt::format("drop {} from {} of {}: {}", length, offset, node, *iFiles.contentOf("/a")));
    };
    EXPECT_EQ(iVolume->write(writer, "XY", 2, 3, drop), 2);
    return drops;
  }
  int write(uint64_t handle) { return iVolume->write(handle, "x", 1, 0, nullptr); }

  DurableMemoryFileSystem iFiles;
  std::shared_ptr<Volume> iVolume =
      std::make_shared<Volume>(&iFiles, VolumeSettings{"/Volumes/Test", false, true});
};

TEST_F(VolumeStoring, TheCloseOfANewFileTellsWhetherItWasRefusedThen) {
  EXPECT_EQ(iVolume->flush(create("/a"), 0), 0);
  iFiles.failWith("synchronize", kEACCES);
  EXPECT_EQ(iVolume->flush(create("/b"), 0), 0) << "the server had it when it was made";
  iFiles.doubtsCreations = true;
  EXPECT_EQ(iVolume->flush(create("/c"), 0), -EACCES);
  iFiles.failWith("synchronize", std::nullopt);
  const uint64_t file = create("/d");
  EXPECT_EQ(iVolume->flush(file, 0), 0);
  iFiles.failWith("synchronize", kEACCES);
  EXPECT_EQ(iVolume->flush(file, 0), 0) << "once is enough";
}

TEST_F(VolumeStoring, ANodeThatIsRefusedIsToldOfAtOnce) {
  iFiles.doubtsCreations = true;
  RequestContext::current().opcode = kMakeNode;
  OpenedFile opened;
  EXPECT_EQ(iVolume->create("/a", 0644, O_WRONLY, 0, &opened), 0);
  iFiles.failWith("synchronize", kEACCES);
  EXPECT_EQ(iVolume->create("/b", 0644, O_WRONLY, 0, &opened), -EACCES);
  EXPECT_EQ(iVolume->flush(opened.handle, 0), -EBADF) << "the library gives back none that was not made";
  RequestContext::current() = RequestContext();
}

TEST_F(VolumeStoring, OnlyTheCloseOfAHandleThatCannotWriteNeedNotBeAskedAbout) {
  iFiles.addFile("/a", "content");
  for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
    OpenedFile opened;
    ASSERT_EQ(iVolume->open("/a", flags, 0, &opened), 0);
    EXPECT_EQ(opened.onlyReads, flags == O_RDONLY) << flags;
  }
  OpenedFile created;
  ASSERT_EQ(iVolume->create("/b", 0644, O_RDONLY, 0, &created), 0);
  RequestContext::current() = RequestContext();
  EXPECT_FALSE(created.onlyReads) << "a new file is stored when it is closed";
}

// Kernels differ in what they do about the pages of others on their own, so that a mount tells little of it.
TEST_F(VolumeStoring, PagesThatAReaderHasAreDroppedAfterAWritePastThem) {
  EXPECT_THAT(dropsOfAWriteBeside(O_RDONLY), ElementsAre("drop 2 from 3 of 7: conXYnt"));
}

TEST_F(VolumeStoring, PagesThatAMappingMayHaveChangedAreDroppedBeforeAndAfterAWritePastThem) {
  EXPECT_THAT(dropsOfAWriteBeside(O_RDWR),
              ElementsAre("drop 2 from 3 of 7: content", "drop 2 from 3 of 7: conXYnt"));
}

TEST_F(VolumeStoring, NothingIsDroppedWhereNobodyElseHasTheFileOpen) {
  iFiles.addFile("/a", "content");
  RequestContext::current().nodeID = 7;
  const uint64_t writer = open("/a", O_WRONLY);
  RequestContext::current() = RequestContext();
  EXPECT_EQ(iVolume->write(writer, "XY", 2, 3, [](uint64_t, off_t, size_t) { FAIL(); }), 2);
}

TEST_F(VolumeStoring, NothingIsDroppedWhereTheWriterUsesThePagesItself) {
  iFiles.addFile("/a", "content");
  RequestContext::current().nodeID = 7;
  const uint64_t writer = open("/a", O_RDWR);
  open("/a", O_RDONLY);
  RequestContext::current() = RequestContext();
  EXPECT_EQ(iVolume->write(writer, "XY", 2, 3, [](uint64_t, off_t, size_t) { FAIL(); }), 2);
}

TEST_F(VolumeStoring, AWriteThatACloseOfADuplicateOvertakesCountsForTheNextClose) {
  const uint64_t file = create("/a");
  iFiles.hold("write", "/a");
  auto writer = std::async(std::launch::async, [&] { return write(file); });
  iFiles.waitUntilHeld(1);
  EXPECT_EQ(iVolume->flush(file, 0), 0);
  iFiles.letGo("write", "/a");
  EXPECT_EQ(writer.get(), 1);
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(iVolume->flush(file, 0), -EIO);
}

TEST_F(VolumeStoring, ACloseDuringAnotherOneWaitsForTheServerAsWell) {
  const uint64_t file = create("/a");
  ASSERT_EQ(write(file), 1);
  iFiles.hold("synchronize", "/a");
  auto first = std::async(std::launch::async, [&] { return iVolume->flush(file, 0); });
  iFiles.waitUntilHeld(1);
  auto second = std::async(std::launch::async, [&] { return iVolume->flush(file, 0); });
  // Where it did not wait it would be over.
  while (iFiles.countOf("synchronize") < 2 &&
         second.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
  }
  iFiles.failWith("synchronize", kEIO);
  iFiles.letGo("synchronize", "/a");
  EXPECT_EQ(first.get(), -EIO);
  EXPECT_EQ(second.get(), -EIO);
}

TEST_F(VolumeStoring, AnOpenFileThatSomebodyElseRemovedIsKnownToItsHandle) {
  iFiles.addFile("/a", "content", 0640);
  const uint64_t file = open("/a", O_RDWR);
  struct stat before {};
  ASSERT_EQ(iVolume->attributes(nullptr, file, &before), 0);
  iFiles.failWith("attributes", kENOENT);
  struct stat after {};
  ASSERT_EQ(iVolume->attributes(nullptr, file, &after), 0);
  EXPECT_EQ(after.st_nlink, 0u);
  EXPECT_EQ(after.st_size, 7);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(iVolume->attributes("/a", 0, &after), -ENOENT);
}

TEST_F(VolumeStoring, ACloseWithoutFurtherWritesAsksNothing) {
  const uint64_t file = create("/a");
  ASSERT_EQ(write(file), 1);
  EXPECT_EQ(iVolume->flush(file, 0), 0);
  EXPECT_EQ(iVolume->flush(file, 0), 0);
  EXPECT_EQ(iFiles.countOf("synchronize"), 1u);
}

TEST_F(VolumeStoring, WhoClosesIsToldWhenTheProcessThatOpenedIsGone) {
  const pid_t opener = fork();
  if (opener == 0) {
    while (true) pause();
  }
  const uint64_t file = create("/a", opener);
  ASSERT_EQ(write(file), 1);
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(iVolume->flush(file, getpid()), 0) << "the opener lives and will close its own";
  kill(opener, SIGKILL);
  siginfo_t end{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(opener), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(iVolume->flush(file, getpid()), -EIO) << "not collected yet";
  int status = 0;
  ASSERT_EQ(waitpid(opener, &status, 0), opener);
  EXPECT_EQ(iVolume->flush(file, getpid()), -EIO);
}

TEST_F(VolumeStoring, WhoWroteIsToldAtItsCloseAlthoughTheOpenerLives) {
  const pid_t opener = fork();
  if (opener == 0) {
    while (true) pause();
  }
  const uint64_t file = create("/a", opener);
  RequestContext::current().thread = getpid();
  ASSERT_EQ(write(file), 1);
  RequestContext::current() = RequestContext();
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(iVolume->flush(file, getppid()), 0) << "inherited it, and only closes";
  EXPECT_EQ(iVolume->flush(file, getpid()), -EIO);
  const auto flush = [&] { return iVolume->flush(file, gettid()); };
  EXPECT_EQ(std::async(std::launch::async, flush).get(), -EIO) << "another thread of the writer";
  kill(opener, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(opener, &status, 0), opener);
}

TEST_F(VolumeStoring, AmongVeryManyWritersEverybodyIsTold) {
  WritingProcesses writers;
  for (pid_t thread = 1; thread <= static_cast<pid_t>(WritingProcesses::kMost); ++thread) writers.add(thread);
  EXPECT_TRUE(writers.includes(getpid()));
}

TEST_F(VolumeStoring, AnotherThreadOfTheProcessThatOpenedIsTold) {
  const uint64_t file = create("/a", getpid());
  ASSERT_EQ(write(file), 1);
  iFiles.failWith("synchronize", kEIO);
  const auto flush = [&] { return iVolume->flush(file, gettid()); };
  EXPECT_EQ(std::async(std::launch::async, flush).get(), -EIO);
}

TEST_F(VolumeStoring, ARemovalThatIsRefusedSendsWhatItHeldUp) {
  const uint64_t file = create("/a");
  ASSERT_EQ(write(file), 1);
  // The upload under way ends with the abandoning, so this close is answered with success.
  ASSERT_EQ(iVolume->flush(file, 0), 0);
  iFiles.failWith("remove", kEACCES);
  EXPECT_EQ(iVolume->removeFile("/a"), -EACCES);
  iVolume->closers().waitUntilIdle();
  EXPECT_EQ(iFiles.calls().back(), "synchronize /a");
  EXPECT_EQ(iFiles.countOf("reclaim"), 1u);
}

TEST_F(VolumeStoring, AfterARefusedRemovalTheNextCloseTellsWhetherItIsStored) {
  const uint64_t file = create("/a");
  ASSERT_EQ(write(file), 1);
  ASSERT_EQ(iVolume->flush(file, 0), 0);
  iFiles.failWith("remove", kEACCES);
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(iVolume->removeFile("/a"), -EACCES);
  EXPECT_EQ(iVolume->flush(file, 0), -EIO);
}

TEST_F(VolumeStoring, AFailedContentIsForgottenBeforeATruncationByPath) {
  iFiles.addFile("/a", "content");
  EXPECT_EQ(iVolume->truncate("/a", 0, 3), 0);
  const auto calls = iFiles.calls();
  const auto forgotten = std::find(calls.begin(), calls.end(), "forget /a");
  const auto truncated = std::find_if(calls.begin(), calls.end(), [](const std::string& call) {
    return call.compare(0, 13, "truncate /a 3") == 0;
  });
  ASSERT_NE(truncated, calls.end());
  EXPECT_LT(forgotten, truncated);
}

TEST_F(VolumeStoring, ATruncationByPathOfAFileThatOthersReadIsStoredWhenItReturns) {
  iFiles.addFile("/a", "content");
  open("/a", O_RDONLY);
  EXPECT_EQ(iVolume->truncate("/a", 0, 3), 0);
  EXPECT_EQ(iFiles.countOf("synchronize /a"), 1u);
  // Of the size that it has already: the upload may have emptied the server's file all the same.
  iFiles.failWith("truncate", kEIO);
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(iVolume->truncate("/a", 0, 3), -EIO);
}

class MovesRecorded final : public DurableMemoryFileSystem {
 public:
  void moveFailedAtPath(OptionalPath path) override { enter("moveFailed", path, "", nullptr); }
};

TEST(VolumeMove, EachThatWasSettledIsEndedOnce) {
  MovesRecorded files;
  for (const char* path : {"/a", "/b", "/c"}) files.addFile(path, "content");
  const auto volume = std::make_shared<Volume>(&files, VolumeSettings{"/Volumes/Test", false, true});
  EXPECT_EQ(volume->move("/a", "/moved", 0), 0);
  EXPECT_EQ(files.countOf("moved /a /moved"), 1u);
  EXPECT_EQ(files.countOf("moveFailed"), 0u);
  files.failWith("move", kEACCES);
  EXPECT_EQ(volume->move("/b", "/other", 0), -EACCES);
  EXPECT_EQ(files.countOf("moveFailed /b"), 1u);
  files.raiseIn("move");
  EXPECT_THROW(volume->move("/c", "/other", 0), KCException);
  EXPECT_EQ(files.countOf("moveFailed /c"), 1u);
}

TEST(VolumeMove, ThatCouldNotBeSettledHasNoEnd) {
  MovesRecorded files;
  files.addFile("/a", "content");
  files.failWith("settle", kEIO);
  const auto volume = std::make_shared<Volume>(&files, VolumeSettings{"/Volumes/Test", false, true});
  EXPECT_EQ(volume->move("/a", "/moved", 0), -EIO);
  EXPECT_EQ(files.countOf("moveFailed"), 0u);
}

}  // namespace
}  // namespace ombra
