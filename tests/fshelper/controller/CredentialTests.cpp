// The credential hand-off, over a real socket.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "fshelper/OFSController.h"
#include "fshelper/OFSTracing.h"
#include "platform/foundation/NSUserDefaults.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kName = "6FA459EA";

std::vector<NSData> inPieces(const NSData& data, size_t size) {
  std::vector<NSData> pieces;
  for (size_t begin = 0; begin < data.size(); begin += size) {
    const size_t end = std::min(begin + size, data.size());
    pieces.emplace_back(data.begin() + static_cast<long>(begin), data.begin() + static_cast<long>(end));
  }
  return pieces;
}

class Credentials : public ::testing::Test {
 protected:
  void TearDown() override {
    gTracingEnabled = false;
    NSUserDefaults::standardUserDefaults().setVolatileObject({}, "UseVerboseLogging");
  }
  std::shared_ptr<KCCredentials> fetch(FrontEnd& frontEnd) {
    frontEnd.start();
    return OFSController::credentialsForRegisteredName(kName, frontEnd.socketPath());
  }
  // A path in the test's folder with that many bytes.
  std::string pathOfLength(size_t length) const {
    std::string path = folder.path("");
    return path + std::string(length - path.size(), 's');
  }
  const NSData archive = testCredentials()->archivedData();
  TestFolder folder;
  LogRecord log;
};

TEST_F(Credentials, TheHelperWritesItsNameAndReadsTheArchive) {
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  const auto credentials = fetch(frontEnd);
  ASSERT_NE(credentials, nullptr);
  EXPECT_EQ(credentials->address(), "files.example.org");
  EXPECT_EQ(credentials->username(), "anna");
  EXPECT_EQ(credentials->password(), "secret");
  EXPECT_EQ(credentials->protocol(), kProtocolSFTP);
  EXPECT_EQ(frontEnd.receivedName(), kName);
}

TEST_F(Credentials, TheNameEndsAtItsFirstNUL) {
  FrontEnd frontEnd(folder.path("sock"), 3, {archive});
  frontEnd.start();
  EXPECT_NE(OFSController::credentialsForRegisteredName(std::string("abc\0def", 7), frontEnd.socketPath()),
            nullptr);
  EXPECT_EQ(frontEnd.receivedName(), "abc");
}

// Larger than a socket's buffers: the write is under way until the front end reads on, which it does not.
TEST_F(Credentials, TheAnswerCountsAlsoWhenTheNameCouldNotBeWritten) {
  const std::string name(size_t{16} << 20, 'n');
  FrontEnd frontEnd(folder.path("sock"), 1, {archive});
  frontEnd.stopReadingAfterName();
  frontEnd.start();
  const auto credentials = OFSController::credentialsForRegisteredName(name, frontEnd.socketPath());
  EXPECT_LT(frontEnd.receivedName().size(), name.size());
  ASSERT_NE(credentials, nullptr);
  EXPECT_EQ(credentials->password(), "secret");
}

// Waits until the thread sleeps in read(2), as the kernel tells it.
void waitUntilReading(pid_t thread) {
  const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
  for (long number = -1; number != SYS_read;) {
    std::ifstream file(path);
    if (!(file >> number)) number = -1;
    std::this_thread::yield();
  }
}

class CredentialPieces : public Credentials, public ::testing::WithParamInterface<size_t> {};

TEST_P(CredentialPieces, AnAnswerInSeveralPiecesIsReadWhole) {
  FrontEnd frontEnd(folder.path("sock"), kName.size(), inPieces(archive, GetParam()));
  // Each piece only when the one before has been taken, and the end only when all have.
  frontEnd.setBetweenPieces([thread = static_cast<pid_t>(gettid())] { waitUntilReading(thread); });
  const auto credentials = fetch(frontEnd);
  ASSERT_NE(credentials, nullptr);
  EXPECT_EQ(credentials->password(), "secret");
}

INSTANTIATE_TEST_SUITE_P(Sizes, CredentialPieces, ::testing::Values(1, 2, 3, 7, 100));

extern "C" void countSignal(int) {}

TEST_F(Credentials, AnInterruptedReadIsRepeated) {
  struct sigaction interrupting {};
  struct sigaction former {};
  interrupting.sa_handler = &countSignal;  // without SA_RESTART
  ::sigaction(SIGUSR1, &interrupting, &former);
  FrontEnd frontEnd(folder.path("sock"), kName.size(), inPieces(archive, 50));
  frontEnd.setBetweenPieces([main = pthread_self(), thread = static_cast<pid_t>(gettid())] {
    waitUntilReading(thread);
    pthread_kill(main, SIGUSR1);
  });
  const auto credentials = fetch(frontEnd);
  ::sigaction(SIGUSR1, &former, nullptr);
  ASSERT_NE(credentials, nullptr);
  EXPECT_EQ(credentials->address(), "files.example.org");
}

TEST_F(Credentials, AnotherReadErrorRaises) {
  FrontEnd frontEnd(folder.path("sock"), 0, {});
  frontEnd.resetInstead();
  try {
    fetch(frontEnd);
    FAIL() << "nothing was raised";
  } catch (const KCException& exception) {
    EXPECT_THAT(exception.reason(), StartsWith("read failed, errno = 104 ("));
    EXPECT_THAT(exception.reason(),
                HasSubstr("\nfunction:+[OFSController credentialsForRegisteredName:usingSocketPath:]\n"));
  }
}

TEST_F(Credentials, WithoutAListenerThereAreNone) {
  EXPECT_EQ(OFSController::credentialsForRegisteredName(kName, folder.path("nobody")), nullptr);
}

std::vector<int> openDescriptors() {
  std::vector<int> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    descriptors.push_back(std::stoi(entry.path().filename()));
  // The one that the listing itself had open is closed by now.
  std::erase_if(descriptors, [](int descriptor) { return ::fcntl(descriptor, F_GETFD) == -1; });
  std::sort(descriptors.begin(), descriptors.end());
  return descriptors;
}

TEST_F(Credentials, WithoutAListenerTheSocketStaysOpen) {
  const std::vector<int> before = openDescriptors();
  EXPECT_EQ(OFSController::credentialsForRegisteredName(kName, folder.path("nobody")), nullptr);
  const std::vector<int> after = openDescriptors();
  std::vector<int> opened;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(opened));
  ASSERT_EQ(opened.size(), 1u);
  int type = 0;
  socklen_t length = sizeof type;
  EXPECT_EQ(::getsockopt(opened.front(), SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_STREAM);
  ::close(opened.front());
}

TEST_F(Credentials, TheSocketIsClosedAfterTheAnswer) {
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  const std::vector<int> before = openDescriptors();
  EXPECT_NE(fetch(frontEnd), nullptr);
  frontEnd.receivedName();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Credentials, AnEmptyPathHasNoListener) {
  EXPECT_EQ(OFSController::credentialsForRegisteredName(kName, ""), nullptr);
}

TEST_F(Credentials, APathOf104BytesIsReached) {
  FrontEnd frontEnd(pathOfLength(104), kName.size(), {archive});
  EXPECT_NE(fetch(frontEnd), nullptr);
}

class CredentialLongPaths : public Credentials, public ::testing::WithParamInterface<size_t> {};

TEST_P(CredentialLongPaths, ALongerPathIsCutAt104Bytes) {
  FrontEnd frontEnd(pathOfLength(104), kName.size(), {archive});
  frontEnd.start();
  EXPECT_NE(OFSController::credentialsForRegisteredName(kName, pathOfLength(GetParam())), nullptr);
}

INSTANTIATE_TEST_SUITE_P(WithinTheAddress, CredentialLongPaths, ::testing::Values(105, 106, 107, 108));

class CredentialOverlongPaths : public Credentials, public ::testing::WithParamInterface<size_t> {};

TEST_P(CredentialOverlongPaths, APathBeyondTheAddressIsRefusedByConnect) {
  FrontEnd frontEnd(pathOfLength(104), kName.size(), {archive});
  frontEnd.start();
  EXPECT_EQ(OFSController::credentialsForRegisteredName(kName, pathOfLength(GetParam())), nullptr);
}

INSTANTIATE_TEST_SUITE_P(BeyondTheAddress, CredentialOverlongPaths,
                         ::testing::Values(109, 126, 127, 130, 5000));

TEST_F(Credentials, AnEmptyAnswerHoldsNone) {
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {});
  EXPECT_EQ(fetch(frontEnd), nullptr);
}

TEST_F(Credentials, AMalformedAnswerHoldsNoneAndIsNotQuotedInTheLog) {
  NSData broken = archive;
  broken.resize(broken.size() - 3);
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {broken});
  EXPECT_EQ(fetch(frontEnd), nullptr);
  EXPECT_THAT(log.lines(), Contains(StartsWith("The front end's answer holds no credentials: ")));
  EXPECT_THAT(log.lines(), Not(Contains(HasSubstr("secret"))));
}

TEST_F(Credentials, AnEndlessAnswerIsReadToItsEndAndRefused) {
  NSData large = archive;
  large.resize(size_t{3} << 20);
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {large});
  EXPECT_EQ(fetch(frontEnd), nullptr);
}

TEST_F(Credentials, VerboseLoggingIsOffByItself) {
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  EXPECT_FALSE(fetch(frontEnd)->useVerboseLogging());
}

TEST_F(Credentials, TracingSwitchesVerboseLoggingOn) {
  gTracingEnabled = true;
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  EXPECT_TRUE(fetch(frontEnd)->useVerboseLogging());
}

TEST_F(Credentials, TracingAndTheUserDefaultTogetherSwitchItOnToo) {
  gTracingEnabled = true;
  NSUserDefaults::standardUserDefaults().setVolatileObject(true, "UseVerboseLogging");
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  EXPECT_TRUE(fetch(frontEnd)->useVerboseLogging());
}

TEST_F(Credentials, TheUserDefaultSwitchesVerboseLoggingOn) {
  NSUserDefaults::standardUserDefaults().setVolatileObject(true, "UseVerboseLogging");
  FrontEnd frontEnd(folder.path("sock"), kName.size(), {archive});
  EXPECT_TRUE(fetch(frontEnd)->useVerboseLogging());
}

}  // namespace
}  // namespace ombra
