// What could not be stored on the server is kept on this machine, and the user is told where.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

class Recovered : public VolumeTest {
 protected:
  void SetUp() override {
    VolumeTest::SetUp();
    if (HasFatalFailure()) return;
    helper = user->helperOf(volume);
    ASSERT_EQ(user->run("mkdir -p " + shellWord(volume + "/folder")).status, 0);
  }
  // For good: nobody will ever take what has not arrived.
  void loseServer() {
    if (isSFTP()) {
      server->dropConnections();
      server->stop();
    } else {
      std::filesystem::remove_all(data() + "/folder");
    }
  }
  int openFile(const std::string& name) {
    const int descriptor = open((volume + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(descriptor, 0) << strerror(errno);
    return descriptor;
  }
  // How much was taken; whether the server has it is asked later.
  static size_t writeAt(int descriptor, size_t offset, const std::string& bytes) {
    const ssize_t count = pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    return count < 0 ? 0 : static_cast<size_t>(count);
  }
  std::string folderOfCopies() const {
    return user->home() + "/state/ombrafs/recovered/" + std::filesystem::path(volume).filename().string();
  }
  std::string copies() const {
    return shell("cd " + shellWord(folderOfCopies()) + " && find . -type f | sort").output;
  }
  void expectUnmounted() {
    EXPECT_FALSE(isMounted(volume));
    EXPECT_FALSE(std::filesystem::exists(volume));
    EXPECT_TRUE(eventually([this] { return !processExists(helper); }));
  }
  pid_t helper = 0;
};

OMBRA_EVERY_VOLUME(Recovered);

// Where nothing is waited for: a server that does not answer is given its time at each step.
class RecoveredHere : public Recovered {};

INSTANTIATE_TEST_SUITE_P(Volumes, RecoveredHere, ::testing::Values(VolumeKind::kStreaming), nameOfVolumeKind);

TEST_P(Recovered, AFileWhoseServerIsGoneLiesWhereTheForcedUnmountSays) {
  const std::string first = someBytes(3000000, 1);
  const std::string second = someBytes(1000000, 2);
  const int descriptor = openFile("/folder/film");
  writeAt(descriptor, 0, first);
  loseServer();
  const size_t taken = writeAt(descriptor, first.size(), second);
  EXPECT_EQ(close(descriptor), -1) << "told as stored";

  const ShellResult result = user->ombra("unmount --force " + shellWord(volume));
  EXPECT_EQ(result.status, 1) << result.output;
  const std::string copy = folderOfCopies() + "/folder/film";
  EXPECT_NE(result.errors.find("/folder/film"), std::string::npos) << result.errors;
  EXPECT_NE(result.errors.find("is not stored on the server"), std::string::npos) << result.errors;
  EXPECT_NE(result.errors.find("It is kept at " + copy), std::string::npos) << result.errors;
  // Of the second write at least nothing that was taken is missing.
  const std::string kept = bytesOf(copy);
  EXPECT_TRUE(kept.starts_with(first)) << kept.size();
  EXPECT_TRUE((first + second).starts_with(kept)) << kept.size();
  EXPECT_GE(kept.size(), first.size() + taken);
  EXPECT_EQ(copies(), "./folder/film\n");
  EXPECT_EQ(shell("stat -c %a " + shellWord(copy)).output, "600\n");
  expectUnmounted();
}

TEST_P(RecoveredHere, AFileThatIsStillOpenAtTheForcedUnmountIsKeptToo) {
  const int descriptor = openFile("/folder/open");
  writeAt(descriptor, 0, "stored ");
  loseServer();
  writeAt(descriptor, 7, "and not stored");
  const ShellResult result = user->ombra("unmount --force " + shellWord(volume));
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_NE(result.errors.find("It is kept at " + folderOfCopies() + "/folder/open"), std::string::npos)
      << result.errors;
  EXPECT_EQ(bytesOf(folderOfCopies() + "/folder/open"), "stored and not stored");
  close(descriptor);
  expectUnmounted();
}

TEST_P(RecoveredHere, AnUnmountInOrderKeepsWhatCannotBeStoredAsWell) {
  const int descriptor = openFile("/folder/file");
  loseServer();
  writeAt(descriptor, 0, "only here");
  EXPECT_EQ(close(descriptor), -1);
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_NE(result.errors.find("It is kept at " + folderOfCopies() + "/folder/file"), std::string::npos)
      << result.errors;
  EXPECT_EQ(bytesOf(folderOfCopies() + "/folder/file"), "only here");
  expectUnmounted();
}

TEST_P(RecoveredHere, AnEarlierCopyIsNotOverwritten) {
  ASSERT_EQ(shell("mkdir -p " + shellWord(folderOfCopies() + "/folder") + " && echo earlier > " +
                  shellWord(folderOfCopies() + "/folder/file"))
                .status,
            0);
  const int descriptor = openFile("/folder/file");
  loseServer();
  writeAt(descriptor, 0, "later");
  EXPECT_EQ(close(descriptor), -1);
  const ShellResult result = user->ombra("unmount --force " + shellWord(volume));
  EXPECT_EQ(bytesOf(folderOfCopies() + "/folder/file"), "earlier\n");
  const size_t at = result.errors.find("It is kept at ");
  ASSERT_NE(at, std::string::npos) << result.errors;
  std::string copy = result.errors.substr(at + 14);
  copy = copy.substr(0, copy.find('\n'));
  EXPECT_EQ(bytesOf(copy), "later") << copy;
}

TEST_P(Recovered, WhatIsStoredIsNotCopied) {
  EXPECT_EQ(user->run("echo x > " + shellWord(volume + "/folder/stored")).status, 0);
  loseServer();
  const ShellResult result = user->ombra("unmount --force " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_FALSE(std::filesystem::exists(folderOfCopies()));
  expectUnmounted();
}

}  // namespace
}  // namespace ombra
