// Which thread releases a file that the kernel has closed.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "platform/userfs/Volume.h"
#include "tests/userfs/MemoryFileSystem.h"

namespace ombra {
namespace {

class VolumeReleasing : public ::testing::Test {
 protected:
  VolumeReleasing() {
    iFiles.addFile("/a", "content");
    // What is handed to them is dropped: only what this thread does is seen.
    iVolume->closers().close();
  }

  void openAndRelease(int flags) {
    OpenedFile opened;
    ASSERT_EQ(iVolume->open("/a", flags, 0, &opened), 0);
    iVolume->release(opened.handle);
  }

  DurableMemoryFileSystem iFiles;
  std::shared_ptr<Volume> iVolume =
      std::make_shared<Volume>(&iFiles, VolumeSettings{"/Volumes/Test", false, true});
};

TEST_F(VolumeReleasing, OneThatWaitsForNothingIsReleasedByTheThreadThatIsAsked) {
  iFiles.promisesQuickReleases = true;
  openAndRelease(O_RDONLY);
  EXPECT_EQ(iFiles.countOf("release /a"), 1u);
  EXPECT_EQ(iFiles.countOf("trim"), 1u);
}

TEST_F(VolumeReleasing, OneThatMayHaveToWaitIsLeftToTheClosers) {
  openAndRelease(O_RDONLY);
  EXPECT_EQ(iFiles.countOf("release /a"), 0u);
}

TEST_F(VolumeReleasing, OneThatWasOpenedToWriteIsLeftToTheClosers) {
  iFiles.promisesQuickReleases = true;
  openAndRelease(O_RDWR);
  EXPECT_EQ(iFiles.countOf("release /a"), 0u);
}

TEST_F(VolumeReleasing, OneThatIsStillOpenToOthersIsLeftToTheClosers) {
  iFiles.promisesQuickReleases = true;
  OpenedFile other;
  ASSERT_EQ(iVolume->open("/a", O_RDWR, 0, &other), 0);
  openAndRelease(O_RDONLY);
  EXPECT_EQ(iFiles.countOf("release /a"), 0u);
}

TEST_F(VolumeReleasing, OneThatRaisesIsReleasedAllTheSame) {
  iFiles.promisesQuickReleases = true;
  iFiles.raiseIn("release");
  openAndRelease(O_RDONLY);
  EXPECT_EQ(iFiles.countOf("trim"), 1u);
}

}  // namespace
}  // namespace ombra
