#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/NSFileHandle.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileHandle : public testing::Test {
 protected:
  std::unique_ptr<NSFileHandle> open(NSFileHandle::Kind kind = NSFileHandle::Kind::kScratch) {
    return std::make_unique<NSFileHandle>(::open((iFolder / "f").c_str(), O_RDWR | O_CREAT, 0600), kind);
  }
  TemporaryFolder iFolder;
  std::unique_ptr<NSFileHandle> iHandle = open();
};

TEST_F(FileHandle, ReadsBackWhatItWroteAtAnOffset) {
  ASSERT_TRUE(iHandle->writeAll("hello", 5, 3));
  char buffer[16] = {};
  EXPECT_EQ(iHandle->readAt(buffer, sizeof buffer, 4), 4);
  EXPECT_STREQ(buffer, "ello");
  EXPECT_EQ(iHandle->readAt(buffer, sizeof buffer, 100), 0);
}

TEST_F(FileHandle, TellsItsLengthWithAndWithoutMoving) {
  ASSERT_TRUE(iHandle->writeAll("hello", 5, 0));
  EXPECT_EQ(iHandle->fileLength(), 5U);
  EXPECT_EQ(lseek(iHandle->fileDescriptor(), 0, SEEK_CUR), 0);
  EXPECT_EQ(iHandle->seekToEndOfFile(), 5U);
  EXPECT_EQ(lseek(iHandle->fileDescriptor(), 0, SEEK_CUR), 5);
}

TEST_F(FileHandle, ReadsARecentWriteFromTheWritersMemory) {
  const auto file = open();
  ASSERT_TRUE(file->writeAll("0123456789", 10, 0));
  const std::string memory = "abcd";  // not what the file holds: only so it shows where the bytes come from
  const auto read = [&file](size_t length, uint64_t offset) {
    std::string bytes(length, '?');
    const ssize_t count = file->readAt(bytes.data(), length, offset);
    return bytes.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
  };
  {
    const NSFileHandle::RecentWrite recent(*file, memory.data(), {3, 7});
    EXPECT_EQ(read(4, 3), "abcd");
    EXPECT_EQ(read(2, 5), "cd");
    EXPECT_EQ(read(5, 3), "34567") << "not wholly of that write";
    EXPECT_EQ(read(2, 2), "23");
    const auto other = open();
    std::string bytes(4, '?');
    EXPECT_EQ(other->readAt(bytes.data(), 4, 3), 4);
    EXPECT_EQ(bytes, "3456") << "another handle is another file";
  }
  EXPECT_EQ(read(4, 3), "3456");
}

TEST_F(FileHandle, ReportsARefusedWrite) {
  NSFileHandle readOnly(::open((iFolder / "f").c_str(), O_RDONLY));
  EXPECT_FALSE(readOnly.writeAll("x", 1, 0));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileHandle, ClosesItsDescriptor) {
  const int descriptor = iHandle->fileDescriptor();
  iHandle.reset();
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(FileHandle, MergesWrittenExtentsThatOverlapOrTouch) {
  iHandle->noteWritten({10, 20});
  iHandle->noteWritten({30, 40});
  iHandle->noteWritten({50, 60});
  EXPECT_THAT(iHandle->unconfirmedExtents(0),
              ElementsAre(FileExtent{10, 20}, FileExtent{30, 40}, FileExtent{50, 60}));
  iHandle->noteWritten({20, 30});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{10, 40}, FileExtent{50, 60}));
  iHandle->noteWritten({0, 100});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 100}));
}

TEST_F(FileHandle, CutsUnconfirmedExtentsToTheAskedRange) {
  iHandle->noteWritten({10, 20});
  iHandle->noteWritten({30, 40});
  EXPECT_THAT(iHandle->unconfirmedExtents(15), ElementsAre(FileExtent{15, 20}, FileExtent{30, 40}));
  EXPECT_THAT(iHandle->unconfirmedExtents(20), ElementsAre(FileExtent{30, 40}));
  EXPECT_THAT(iHandle->unconfirmedExtents(40), IsEmpty());
}

TEST_F(FileHandle, ConfirmingTakesOutExactlyWhatWasSent) {
  iHandle->noteWritten({0, 100});
  iHandle->noteConfirmed({20, 30});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 20}, FileExtent{30, 100}));
  iHandle->noteConfirmed({10, 40});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 10}, FileExtent{40, 100}));
  iHandle->noteConfirmed({100, 200});
  iHandle->noteConfirmed({0, 100});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), IsEmpty());
}

TEST_F(FileHandle, TruncationCutsExtents) {
  iHandle->noteWritten({0, 10});
  iHandle->noteWritten({20, 30});
  iHandle->noteWritten({40, 50});
  iHandle->noteTruncated(25);
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 10}, FileExtent{20, 25}));
  iHandle->noteTruncated(20);
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 10}));
  iHandle->noteTruncated(0);
  EXPECT_THAT(iHandle->unconfirmedExtents(0), IsEmpty());
}

TEST_F(FileHandle, IgnoresEmptyExtents) {
  iHandle->noteWritten({5, 5});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), IsEmpty());
  iHandle->noteWritten({0, 10});
  iHandle->noteConfirmed({5, 5});
  EXPECT_THAT(iHandle->unconfirmedExtents(0), ElementsAre(FileExtent{0, 10}));
}

// Against a plain list of bytes, over many random steps.
TEST_F(FileHandle, ExtentsAgreeWithAListOfBytes) {
  constexpr uint64_t kSize = 64;
  std::vector<bool> written(kSize, false);
  uint32_t random = 12345;
  const auto next = [&random](uint32_t bound) {
    return (random = random * 1664525 + 1013904223) / 65536 % bound;
  };
  for (int step = 0; step < 5000; ++step) {
    const uint64_t begin = next(kSize);
    const uint64_t end = begin + next(kSize - static_cast<uint32_t>(begin) + 1);
    const uint32_t kind = next(20);
    if (kind == 0) {
      iHandle->noteTruncated(begin);
      std::fill(written.begin() + static_cast<long>(begin), written.end(), false);
    } else {
      kind < 10 ? iHandle->noteWritten({begin, end}) : iHandle->noteConfirmed({begin, end});
      std::fill(written.begin() + static_cast<long>(begin), written.begin() + static_cast<long>(end),
                kind < 10);
    }
    std::vector<bool> actual(kSize, false);
    uint64_t last = 0;
    for (const FileExtent& extent : iHandle->unconfirmedExtents(0)) {
      ASSERT_LT(extent.begin, extent.end);
      ASSERT_TRUE(last == 0 || extent.begin > last) << "sorted, disjoint and not touching";
      last = extent.end;
      for (uint64_t i = extent.begin; i < extent.end; ++i) actual[i] = true;
    }
    ASSERT_EQ(actual, written) << "step " << step;
  }
}

TEST_F(FileHandle, OfAPlainFileRecordsNothing) {
  const auto plain = open(NSFileHandle::Kind::kFile);
  EXPECT_FALSE(plain->isScratch());
  plain->noteWritten({0, 10});
  EXPECT_THAT(plain->unconfirmedExtents(0), IsEmpty());
}

TEST(FileAttributes, CountAndDescribeWhatIsPresent) {
  NSFileAttributes attributes;
  EXPECT_EQ(attributes.count(), 0U);
  EXPECT_EQ(attributes.description(), "{}");
  attributes.fileSize = 3;
  attributes.posixPermissions = 0644;
  EXPECT_EQ(attributes.count(), 2U);
  EXPECT_EQ(attributes.description(), "{NSFileSize=3, NSFilePosixPermissions=0644}");
}

TEST(FileAttributes, DescribeEveryKey) {
  const NSDate date = NSDate::dateWithTimeIntervalSince1970(1000000000);
  const NSFileAttributes attributes{
      NSFileTypeValue::NSFileTypeSymbolicLink, 1, date, date, 0755, 2, 3, 4, 5, 6};
  EXPECT_EQ(attributes.count(), 10U);
  EXPECT_EQ(
      attributes.description(),
      "{NSFileType=NSFileTypeSymbolicLink, NSFileSize=1, NSFileCreationDate=2001-09-09 01:46:40Z, "
      "NSFileModificationDate=2001-09-09 01:46:40Z, NSFilePosixPermissions=0755, NSFileSystemFileNumber=2, "
      "NSFileSystemSize=3, NSFileSystemFreeSize=4, NSFileOwnerAccountID=5, NSFileGroupOwnerAccountID=6}");
}

}  // namespace
}  // namespace ombra
