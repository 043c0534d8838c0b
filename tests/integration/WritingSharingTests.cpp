// Several handles, programs and mappings on one file.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

class WritingSharing : public Writing {
 protected:
  // An open file, closed at the latest with the object.
  class File {
   public:
    File(const std::string& path, int flags) : iDescriptor(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
      EXPECT_GE(iDescriptor, 0) << path << ": " << strerror(errno);
    }
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    void close() {
      if (iDescriptor >= 0) {
        EXPECT_EQ(::close(iDescriptor), 0) << strerror(errno);
      }
      iDescriptor = -1;
    }
    void writeAt(size_t offset, const std::string& bytes) {
      EXPECT_EQ(pwrite(iDescriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
                static_cast<ssize_t>(bytes.size()))
          << strerror(errno);
    }
    void append(const std::string& bytes) {
      EXPECT_EQ(write(iDescriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()))
          << strerror(errno);
    }
    std::string readAt(size_t offset, size_t length) {
      std::string bytes(length, '\0');
      const ssize_t count = pread(iDescriptor, bytes.data(), length, static_cast<off_t>(offset));
      EXPECT_GE(count, 0) << strerror(errno);
      bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
      return bytes;
    }
    size_t size() {
      struct stat info {};
      EXPECT_EQ(fstat(iDescriptor, &info), 0);
      return static_cast<size_t>(info.st_size);
    }
    char* map(size_t length, int protection) {
      void* bytes = mmap(nullptr, length, protection, MAP_SHARED, iDescriptor, 0);
      if (bytes != MAP_FAILED) return static_cast<char*>(bytes);
      ADD_FAILURE() << strerror(errno);
      return nullptr;
    }

   private:
    int iDescriptor;
  };
};

OMBRA_EVERY_VOLUME(WritingSharing);

TEST_P(WritingSharing, AMappingIsReadAndWritten) {
  runInBoth("head -c 10000 /dev/zero | tr '\\0' a > map");
  inBoth([](const std::string& folder) {
    File file(folder + "/map", O_RDWR);
    char* bytes = file.map(10000, PROT_READ | PROT_WRITE);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes[9999], 'a');
    std::memcpy(bytes + 5000, "mapped", 6);
    EXPECT_EQ(msync(bytes, 10000, MS_SYNC), 0);
    munmap(bytes, 10000);
  });
  runInBoth("dd if=map bs=1 skip=4999 count=8 status=none");
}

TEST_P(WritingSharing, AMappingThatOutlivesItsDescriptorIsStored) {
  runInBoth("truncate -s 1000000 map");
  inBoth([](const std::string& folder) {
    File file(folder + "/map", O_RDWR);
    char* bytes = file.map(1000000, PROT_READ | PROT_WRITE);
    ASSERT_NE(bytes, nullptr);
    file.close();
    for (size_t at = 0; at < 1000000; at += 50000) bytes[at] = 'x';
    EXPECT_EQ(msync(bytes, 1000000, MS_SYNC), 0);
    std::memcpy(bytes + 999990, "last words", 10);
    munmap(bytes, 1000000);
    // The last words are the kernel's now, which sends them without being asked.
    File again(folder + "/map", O_RDONLY);
    EXPECT_EQ(again.readAt(999990, 10), "last words");
    EXPECT_TRUE(eventually([&] { return shell("sync " + shellWord(folder + "/map")).status == 0; }));
  });
}

TEST_P(WritingSharing, AMappingSeesWhatIsWrittenAndTheOtherWayRound) {
  inBoth([](const std::string& folder) {
    File file(folder + "/map", O_RDWR | O_CREAT);
    file.writeAt(0, std::string(8192, '-'));
    char* bytes = file.map(8192, PROT_READ | PROT_WRITE);
    ASSERT_NE(bytes, nullptr);
    file.writeAt(4096, "written");
    EXPECT_EQ(std::string(bytes + 4096, 7), "written");
    std::memcpy(bytes + 100, "mapped", 6);
    EXPECT_EQ(file.readAt(100, 6), "mapped");
    munmap(bytes, 8192);
  });
}

TEST_P(WritingSharing, TwoWritersOfOneFileBothGetTheirBytesIn) {
  inBoth([](const std::string& folder) {
    constexpr size_t kBlock = 10000;
    constexpr size_t kBlocks = 60;
    std::vector<std::thread> writers;
    for (size_t first : {size_t{0}, size_t{1}}) {
      writers.emplace_back([folder, first] {
        File file(folder + "/shared", O_WRONLY | O_CREAT);
        for (size_t block = first; block < kBlocks; block += 2) {
          file.writeAt(block * kBlock, someBytes(kBlock, static_cast<unsigned>(block)));
        }
      });
    }
    for (std::thread& writer : writers) writer.join();
    for (size_t block = 0; block < kBlocks; ++block) {
      File file(folder + "/shared", O_RDONLY);
      ASSERT_EQ(file.readAt(block * kBlock, kBlock), someBytes(kBlock, static_cast<unsigned>(block)))
          << block;
    }
  });
}

TEST_P(WritingSharing, TwoProgramsAppendToOneLogWithoutTearingALine) {
  const std::string script =
      "for w in A B; do (for i in $(seq 100); do echo $w $i some more words; done >> log) & done; wait";
  for (const std::string& folder : {volume, twin.path()}) {
    EXPECT_EQ(user->run("cd " + shellWord(folder) + " && " + script).status, 0);
  }
  // In which order they come is up to the two.
  runInBoth("LC_ALL=C sort -o log log && wc -l < log && md5sum < log");
}

// Where the writer's bytes are on their way as a stream, a reader waits for its end: some seconds each time.
TEST_P(WritingSharing, AReaderSeesEachLineThatHasBeenWritten) {
  const int lines = isSFTP() ? 20 : 1;
  inBoth([lines](const std::string& folder) {
    File writer(folder + "/growing", O_WRONLY | O_CREAT);
    File reader(folder + "/growing", O_RDONLY);
    size_t end = 0;
    for (int line = 0; line < lines; ++line) {
      const std::string text = "line " + std::to_string(line) + std::string(2000, '.') + "\n";
      writer.append(text);
      ASSERT_EQ(reader.readAt(end, 5000), text) << line;
      end += text.size();
      ASSERT_EQ(reader.size(), end);
    }
  });
}

TEST_P(WritingSharing, ARemovedFileGoesOnForThoseWhoHaveItOpen) {
  inBoth([](const std::string& folder) {
    File file(folder + "/open", O_RDWR | O_CREAT);
    file.append("line\n");
    EXPECT_EQ(unlink((folder + "/open").c_str()), 0);
    EXPECT_NE(access((folder + "/open").c_str(), F_OK), 0);
    file.append("after\n");
    EXPECT_EQ(file.readAt(0, 100), "line\nafter\n");
    EXPECT_EQ(file.size(), 11u);
    File other(folder + "/open", O_RDWR | O_CREAT | O_EXCL);
    other.append("a new one of that name");
    EXPECT_EQ(file.readAt(0, 100), "line\nafter\n");
  });
  runInBoth("cat open");
}

TEST_P(WritingSharing, AFileRenamedWhileOpenGetsWhatIsWrittenThen) {
  runInBoth("exec 3> named && echo one >&3 && mv named other && echo two >&3 && exec 3>&- && cat other");
  runInBoth("mkdir m && exec 3> m/f && echo one >&3 && mv m n && echo two >&3 && exec 3>&- && cat n/f");
  inBoth([](const std::string& folder) {
    File file(folder + "/moving", O_RDWR | O_CREAT);
    file.append(someBytes(200000));
    EXPECT_EQ(rename((folder + "/moving").c_str(), (folder + "/moved").c_str()), 0);
    file.writeAt(100, "after the move");
    EXPECT_EQ(rename((folder + "/moved").c_str(), (folder + "/n/again").c_str()), 0);
    file.writeAt(200000, "the end");
  });
  runInBoth("md5sum n/again && test ! -e moving && test ! -e moved");
}

TEST_P(WritingSharing, AnOpenFileThatIsReplacedKeepsItsBytesForItsReaders) {
  inBoth([](const std::string& folder) {
    {
      File old(folder + "/target", O_WRONLY | O_CREAT);
      old.append("old content");
    }
    File reader(folder + "/target", O_RDWR);
    {
      File fresh(folder + "/fresh", O_WRONLY | O_CREAT);
      fresh.append("new");
    }
    EXPECT_EQ(rename((folder + "/fresh").c_str(), (folder + "/target").c_str()), 0);
    EXPECT_EQ(reader.readAt(0, 100), "old content");
    reader.writeAt(0, "NOWHERE TO BE SEEN");
    reader.close();
    File now(folder + "/target", O_RDONLY);
    EXPECT_EQ(now.readAt(0, 100), "new");
  });
}

}  // namespace
}  // namespace ombra
