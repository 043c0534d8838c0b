#include "frontend/CredentialSocket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using Result = CredentialSocket::Result;

// A visitor on a thread of its own: sends its pieces, then reads to the end.
class Visitor {
 public:
  Visitor(const std::string& path, std::vector<std::string> pieces)
      : iFd(connectTo(path)), iThread([this, pieces = std::move(pieces)] {
          for (const std::string& piece : pieces) send(iFd, piece.data(), piece.size(), MSG_NOSIGNAL);
          char buffer[4096];
          for (ssize_t count = read(iFd, buffer, sizeof(buffer)); count > 0;
               count = read(iFd, buffer, sizeof(buffer))) {
            iReceived.append(buffer, static_cast<size_t>(count));
          }
        }) {}
  ~Visitor() {
    if (iThread.joinable()) received();
    close(iFd);
  }
  Visitor(const Visitor&) = delete;
  Visitor& operator=(const Visitor&) = delete;

  // All that came until the front end closed.
  const std::string& received() {
    if (iThread.joinable()) iThread.join();
    return iReceived;
  }

  static int connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << path;
    return fd;
  }

 private:
  int iFd;
  std::string iReceived;
  std::thread iThread;
};

class CredentialSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    iSocket = CredentialSocket::createIn({iFolder.path()}, &iFailure);
    ASSERT_TRUE(iSocket) << iFailure.text();
  }

  CredentialSocket::Hand hand() const { return {.registeredName = "the-name", .archive = iArchive}; }
  static std::string archiveText() {
    std::string text(300000, 'x');
    text.back() = '!';
    return text;
  }

  TemporaryFolder iFolder;
  Failure iFailure;
  std::unique_ptr<CredentialSocket> iSocket;
  const std::string iText = archiveText();
  const NSData iArchive{iText.begin(), iText.end()};
};

TEST_F(CredentialSocketTest, GivesTheWholeArchiveToWhoNamesTheRegistrationName) {
  Visitor visitor(iSocket->path(), {"the-name"});
  EXPECT_EQ(iSocket->serve(hand()), Result::kServed);
  EXPECT_EQ(visitor.received(), iText);
}

TEST_F(CredentialSocketTest, TakesTheNameInPieces) {
  Visitor visitor(iSocket->path(), {"th", "e-", "name"});
  EXPECT_EQ(iSocket->serve(hand()), Result::kServed);
  EXPECT_EQ(visitor.received(), iText);
}

TEST_F(CredentialSocketTest, TurnsAwayWrongNamesAndWaitsForTheRightOne) {
  Visitor other(iSocket->path(), {"another"});
  Visitor longer(iSocket->path(), {"the-name-and-more"});
  Visitor right(iSocket->path(), {"the-name"});
  EXPECT_EQ(iSocket->serve(hand()), Result::kServed);
  EXPECT_EQ(other.received(), "");
  EXPECT_EQ(longer.received(), "");
  EXPECT_EQ(right.received(), iText);
}

TEST_F(CredentialSocketTest, TurnsAwayOtherUsers) {
  Visitor first(iSocket->path(), {"the-name"});
  Visitor second(iSocket->path(), {"the-name"});
  auto given = hand();
  int asked = 0;
  given.isAllowed = [&asked](const ucred& peer) {
    EXPECT_EQ(peer.uid, geteuid());
    EXPECT_EQ(peer.pid, getpid());
    return ++asked == 2;  // as if the first were somebody else
  };
  EXPECT_EQ(iSocket->serve(given), Result::kServed);
  EXPECT_EQ(first.received(), "");
  EXPECT_EQ(second.received(), iText);
}

TEST_F(CredentialSocketTest, ServesOneVisitorOnly) {
  Visitor first(iSocket->path(), {"the-name"});
  Visitor second(iSocket->path(), {"the-name"});
  EXPECT_EQ(iSocket->serve(hand()), Result::kServed);
  iSocket->remove();
  EXPECT_EQ(first.received(), iText);
  EXPECT_EQ(second.received(), "");
}

TEST_F(CredentialSocketTest, AVisitorThatSaysNothingIsTurnedAwayAfterItsTime) {
  Visitor mute(iSocket->path(), {});
  auto given = hand();
  given.perConnectionLimit = std::chrono::milliseconds(30);
  given.limit = std::chrono::milliseconds(120);
  EXPECT_EQ(iSocket->serve(given), Result::kTimedOut);
  EXPECT_EQ(mute.received(), "");
}

TEST_F(CredentialSocketTest, AVisitorThatDoesNotReadIsTurnedAwayAfterItsTime) {
  const int lazy = Visitor::connectTo(iSocket->path());
  ASSERT_EQ(write(lazy, "the-name", 8), 8);
  const NSData large(20 * 1024 * 1024, 'x');  // more than any socket buffer holds
  const CredentialSocket::Hand given{.registeredName = "the-name",
                                     .archive = large,
                                     .limit = std::chrono::milliseconds(120),
                                     .perConnectionLimit = std::chrono::milliseconds(30),
                                     .isAllowed = {}};
  EXPECT_EQ(iSocket->serve(given), Result::kTimedOut);
  close(lazy);
}

TEST_F(CredentialSocketTest, EndsWhenTheHelperHasEnded) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[1]);  // the read end is ready from now on, as a process descriptor is
  auto given = hand();
  given.helperFd = ends[0];
  EXPECT_EQ(iSocket->serve(given), Result::kHelperEnded);
  close(ends[0]);
}

TEST_F(CredentialSocketTest, EndsWhenInterruptedEvenWithAVisitorInside) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Visitor mute(iSocket->path(), {"the-"});
  auto given = hand();
  given.interruptionFd = ends[0];
  // Asked for once the visitor is inside: one that still stands at the door is not turned away.
  given.isAllowed = [&ends](const ucred&) { return write(ends[1], "", 1) == 1; };
  EXPECT_EQ(iSocket->serve(given), Result::kInterrupted);
  EXPECT_EQ(mute.received(), "");
  close(ends[0]);
  close(ends[1]);
}

TEST_F(CredentialSocketTest, IsForItsUserAlone) {
  struct stat folder {};
  struct stat socket {};
  const std::string parent = iSocket->path().substr(0, iSocket->path().rfind('/'));
  ASSERT_EQ(stat(parent.c_str(), &folder), 0);
  ASSERT_EQ(stat(iSocket->path().c_str(), &socket), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0700U);
  EXPECT_EQ(socket.st_mode & 07777, 0600U);
}

TEST_F(CredentialSocketTest, LeavesNothingBehind) {
  const std::string parent = iSocket->path().substr(0, iSocket->path().rfind('/'));
  iSocket.reset();
  EXPECT_NE(access(parent.c_str(), F_OK), 0);
}

TEST(CredentialSocketPlace, IsTheFirstFolderWithAShortEnoughPath) {
  const TemporaryFolder shortFolder;
  const TemporaryFolder parent;
  const std::string longFolder = parent / std::string(100, 'l');
  ASSERT_EQ(mkdir(longFolder.c_str(), 0700), 0);
  Failure failure;
  const auto socket =
      CredentialSocket::createIn({"", "/no such folder", longFolder, shortFolder.path()}, &failure);
  ASSERT_TRUE(socket);
  EXPECT_TRUE(socket->path().starts_with(shortFolder.path()));
  EXPECT_LE(socket->path().size(), CredentialSocket::kMaximumPathLength);
}

TEST(CredentialSocketPlace, OfTheLongestPathStillWorks) {
  const TemporaryFolder parent;
  // "/ombra-XXXXXX/s" takes 15 bytes of the 103.
  const std::string folder = parent / std::string(103 - 15 - parent.path().size() - 1, 'l');
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  Failure failure;
  const auto socket = CredentialSocket::createIn({folder}, &failure);
  ASSERT_TRUE(socket) << failure.text();
  EXPECT_EQ(socket->path().size(), 103U);
  EXPECT_FALSE(CredentialSocket::createIn({folder + "l"}, &failure));
}

TEST(CredentialSocketPlace, IsMissedWithAReason) {
  Failure failure;
  EXPECT_FALSE(CredentialSocket::createIn({"/proc", ""}, &failure));
  EXPECT_EQ(failure.code, kExitCannotMount);
  EXPECT_NE(failure.text().find("XDG_RUNTIME_DIR"), std::string::npos);
}

}  // namespace
}  // namespace ombra
