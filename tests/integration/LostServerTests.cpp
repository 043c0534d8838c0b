// The connection breaks, or the server ends and comes back, while programs write.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

constexpr size_t kPiece = 512 * 1024;

class LostServer : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    volume = user->mount(mountArguments(data()));
  }
  ShellResult inVolume(const std::string& script) {
    return user->run("cd " + shellWord(volume) + " && " + script);
  }
  int openFile(const std::string& name) {
    const int descriptor = open((volume + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(descriptor, 0) << strerror(errno);
    return descriptor;
  }
  // Whether each piece from `first` up to `end` was taken.
  bool writePieces(int descriptor, size_t first, size_t end) {
    bool taken = true;
    for (size_t piece = first; piece < end; ++piece) {
      const std::string bytes = someBytes(kPiece, static_cast<unsigned>(piece));
      const auto at = static_cast<off_t>(piece * kPiece);
      if (pwrite(descriptor, bytes.data(), kPiece, at) != static_cast<ssize_t>(kPiece)) taken = false;
    }
    return taken;
  }
  std::string pieces(size_t count) {
    std::string bytes;
    for (size_t piece = 0; piece < count; ++piece) bytes += someBytes(kPiece, static_cast<unsigned>(piece));
    return bytes;
  }
  void killServer() {
    server->dropConnections();
    server->stop();
  }
  std::string volume;
};

TEST_F(LostServer, AConnectionLostInTheMiddleOfAFileCostsNothing) {
  const int descriptor = openFile("file");
  EXPECT_TRUE(writePieces(descriptor, 0, 8));
  server->dropConnections();
  const bool taken = writePieces(descriptor, 8, 16);
  // Had a write failed the program would know, and the close brings the file there all the same.
  EXPECT_TRUE(taken || fsync(descriptor) == 0);
  EXPECT_EQ(close(descriptor), 0) << strerror(errno);
  EXPECT_TRUE(bytesOf(data() + "/file") == pieces(16));
}

TEST_F(LostServer, AServerKilledAndRestartedInTheMiddleOfAFileCostsNothing) {
  const int descriptor = openFile("file");
  EXPECT_TRUE(writePieces(descriptor, 0, 8));
  killServer();
  ASSERT_TRUE(server->start()) << server->whyNot();
  writePieces(descriptor, 8, 16);
  EXPECT_EQ(fsync(descriptor), 0) << strerror(errno);
  EXPECT_TRUE(bytesOf(data() + "/file") == pieces(16));
  EXPECT_EQ(close(descriptor), 0) << strerror(errno);
  EXPECT_TRUE(bytesOf(data() + "/file") == pieces(16));
}

TEST_F(LostServer, WhatFailedWhileTheServerWasGoneIsStoredByALaterSync) {
  const int descriptor = openFile("file");
  EXPECT_TRUE(writePieces(descriptor, 0, 4));
  killServer();
  writePieces(descriptor, 4, 5);
  EXPECT_EQ(fsync(descriptor), -1) << "told as stored while there is no server";
  EXPECT_EQ(errno, EIO);
  ASSERT_TRUE(server->start()) << server->whyNot();
  EXPECT_EQ(fsync(descriptor), 0) << strerror(errno);
  EXPECT_TRUE(bytesOf(data() + "/file") == pieces(5));
  EXPECT_EQ(close(descriptor), 0);
}

TEST_F(LostServer, ACallFailsInBoundedTimeAndWorksAgainLater) {
  ASSERT_EQ(inVolume("mkdir d && echo x > f && ls d").status, 0);
  killServer();
  const ShellResult result = inVolume("mkdir new");
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.errors, "");
  EXPECT_LT(result.seconds, 20);
  ASSERT_TRUE(server->start()) << server->whyNot();
  EXPECT_EQ(inVolume("mkdir new && mv f g && ln -s g link && echo more >> g && chmod 600 g").status, 0);
  EXPECT_EQ(inVolume("ls && cat g").output, "d\ng\nlink\nnew\nx\nmore\n");
  EXPECT_EQ(shell("ls " + shellWord(data())).output, "d\ng\nlink\nnew\n");
  EXPECT_EQ(bytesOf(data() + "/g"), "x\nmore\n");
}

// Each file that the program was not told of is on the server, and nothing else is.
TEST_F(LostServer, ACopyOfManyFilesTellsOfEachOneThatIsMissing) {
  ASSERT_EQ(user->run("cd && mkdir src && for i in $(seq 400); do echo $i > src/f$i; done").status, 0);
  ShellResult copied;
  std::thread copy([&] { copied = inVolume("cp -r ~/src ."); });
  for (const int count : {50, 150, 250}) {
    const auto areThere = [&] {
      return std::stoi(shell("ls " + shellWord(data() + "/src") + " | wc -l").output) >= count;
    };
    EXPECT_TRUE(eventually(areThere, 60)) << count;
    server->dropConnections();
  }
  copy.join();
  const ShellResult differences = user->run("diff -r ~/src " + shellWord(data() + "/src"));
  if (copied.status == 0) {
    EXPECT_EQ(differences.output, "");
  } else {
    for (int i = 1; i <= 400; ++i) {
      const std::string name = "f" + std::to_string(i);
      const bool isTold = copied.errors.find("/" + name + "'") != std::string::npos;
      EXPECT_TRUE(isTold || bytesOf(data() + "/src/" + name) == std::to_string(i) + "\n") << name;
    }
  }
  EXPECT_EQ(inVolume("cp -r ~/src .").status, 0);
  EXPECT_EQ(user->run("diff -r ~/src " + shellWord(data() + "/src")).output, "");
  EXPECT_EQ(user->run("diff -r ~/src " + shellWord(volume + "/src")).output, "");
}

}  // namespace
}  // namespace ombra
