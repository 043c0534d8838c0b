// What is written past the kernel's pages, and who sees it.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

constexpr size_t kPage = 4096;

class MountPagesTest : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    iFiles.addFile("/a", std::string(2 * kPage, '.'));
    mount();
  }
  static void writeAt(const File& file, off_t offset, const std::string& text) {
    ASSERT_EQ(pwrite(file.get(), text.data(), text.size(), offset), static_cast<ssize_t>(text.size()));
  }
  static std::string readAt(const File& file, off_t offset, size_t length) {
    std::string text(length, '\0');
    const ssize_t count = pread(file.get(), text.data(), length, offset);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }
};

// The content of a file, mapped.
class Mapping {
 public:
  Mapping(const File& file, size_t length, int protection)
      : iLength(length), iPlace(mmap(nullptr, length, protection, MAP_SHARED, file.get(), 0)) {}
  ~Mapping() {
    if (isMapped()) munmap(iPlace, iLength);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  bool isMapped() const { return iPlace != MAP_FAILED; }
  volatile char& operator[](size_t at) { return static_cast<volatile char*>(iPlace)[at]; }

 private:
  const size_t iLength;
  void* const iPlace;
};

TEST_F(MountPagesTest, AReaderSeesWhatAWriterWritesThatCameBeforeIt) {
  const File writer(at("/a"), O_WRONLY);
  const File reader(at("/a"), O_RDONLY);
  ASSERT_EQ(readAt(reader, 0, 4), "....");
  writeAt(writer, 1, "AB");
  EXPECT_EQ(readAt(reader, 0, 4), ".AB.");
}

TEST_F(MountPagesTest, AReaderSeesWhatAWriterWritesThatCameAfterIt) {
  const File reader(at("/a"), O_RDONLY);
  ASSERT_EQ(readAt(reader, 0, 4), "....");
  const File writer(at("/a"), O_WRONLY);
  writeAt(writer, 1, "AB");
  EXPECT_EQ(readAt(reader, 0, 4), ".AB.");
}

TEST_F(MountPagesTest, AMappingShowsWhatIsWritten) {
  const File writer(at("/a"), O_WRONLY);
  const File reader(at("/a"), O_RDONLY);
  Mapping mapping(reader, kPage, PROT_READ);
  ASSERT_TRUE(mapping.isMapped());
  ASSERT_EQ(mapping[1], '.');
  writeAt(writer, 1, "A");
  EXPECT_EQ(mapping[1], 'A');
}

TEST_F(MountPagesTest, WhatAMappingHasChangedStaysBesideWhatIsWritten) {
  const File writer(at("/a"), O_WRONLY);
  const File other(at("/a"), O_RDWR);
  Mapping mapping(other, kPage, PROT_READ | PROT_WRITE);
  ASSERT_TRUE(mapping.isMapped());
  mapping[1] = 'M';
  writeAt(writer, 3, "W");
  EXPECT_EQ(mapping[3], 'W');
  EXPECT_EQ(iFiles.contentOf("/a")->substr(0, 5), ".M.W.");
}

TEST_F(MountPagesTest, WhoFollowsAFileThatGrowsReadsAllOfIt) {
  const File writer(at("/log"), O_CREAT | O_WRONLY);
  writeAt(writer, 0, "one ");
  const File reader(at("/log"), O_RDONLY);
  ASSERT_EQ(readAt(reader, 0, 100), "one ");
  writeAt(writer, 4, "two ");
  EXPECT_EQ(readAt(reader, 4, 100), "two ");
  writeAt(writer, 8, "three");
  EXPECT_EQ(readAt(reader, 0, 100), "one two three");
}

TEST_F(MountPagesTest, WhatWasReadWhileAFileWasWrittenIsReadAgainWhenItIsOpenedAgain) {
  File writer(at("/a"), O_WRONLY);
  ASSERT_EQ(readAt(File(at("/a"), O_RDONLY), 0, 4), "....");
  writeAt(writer, 1, "AB");
  EXPECT_EQ(readAt(File(at("/a"), O_RDONLY), 0, 4), ".AB.");
  writeAt(writer, 1, "CD");
  ASSERT_EQ(writer.close(), 0);
  EXPECT_EQ(readAt(File(at("/a"), O_RDONLY), 0, 4), ".CD.");
}

TEST_F(MountPagesTest, TwoWhoOnlyWriteSpoilNothingForEachOther) {
  const File first(at("/a"), O_WRONLY);
  const File second(at("/a"), O_WRONLY);
  writeAt(first, 0, "1");
  writeAt(second, 1, "2");
  writeAt(first, 2, "3");
  EXPECT_EQ(readAt(File(at("/a"), O_RDONLY), 0, 4), "123.");
}

TEST_F(MountPagesTest, AReaderOfARemovedFileSeesWhatIsWrittenToIt) {
  const File writer(at("/a"), O_WRONLY);
  const File reader(at("/a"), O_RDONLY);
  ASSERT_EQ(readAt(reader, 0, 4), "....");
  ASSERT_EQ(unlink(at("/a").c_str()), 0);
  writeAt(writer, 1, "AB");
  EXPECT_EQ(readAt(reader, 0, 4), ".AB.");
}

}  // namespace
}  // namespace ombra
