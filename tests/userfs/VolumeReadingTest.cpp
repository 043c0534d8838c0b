// Reads of files whose attributes promise no size.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/userfs/Volume.h"
#include "tests/userfs/MemoryFileSystem.h"

namespace ombra {
namespace {

class Sizeless final : public DurableMemoryFileSystem {
 public:
  std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath path, const GMUserData& userData,
                                                         NSErrorRef* error) override {
    auto attributes = MemoryFileSystem::attributesOfItemAtPath(path, userData, error);
    if (attributes) attributes->fileSize.reset();
    return attributes;
  }
};

class ReadOfUnknownSize : public ::testing::TestWithParam<std::pair<GMContentState, int>> {};

TEST_P(ReadOfUnknownSize, EndsAsTheStateOfTheContentSays) {
  Sizeless files;
  files.addFile("/a", "0123456789");
  files.setContentState("/a", GetParam().first, 4);
  const auto volume = std::make_shared<Volume>(&files, VolumeSettings{"/Volumes/Test", false, true});
  OpenedFile opened;
  ASSERT_EQ(volume->open("/a", O_RDONLY, 0, &opened), 0);
  char buffer[16];
  EXPECT_EQ(volume->read(opened.handle, buffer, sizeof buffer, 0), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(States, ReadOfUnknownSize,
                         ::testing::Values(std::pair(GMContentState::kFailed, -EIO),
                                           std::pair(GMContentState::kComplete, 4)));

}  // namespace
}  // namespace ombra
