// The real helper, started and watched as a front end does.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "fshelper/DrelFSInstaller.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "remote/KCAuthorizationManager.h"
#include "remote/QuarnKitError.h"
#include "tests/fshelper/controller/FeedServer.h"
#include "tests/fshelper/controller/HelperProcess.h"
#include "tests/fshelper/controller/NotificationService.h"
#include "tests/fshelper/controller/PrivateBus.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// Whether the mount table has that path.
bool isMounted(const std::string& path) {
  return readTestFile("/proc/self/mounts").find(" " + path + " ") != std::string::npos;
}

// Waits until the mount table says so; the kernel tells of each change.
bool waitUntilMounted(const std::string& path) {
  const int table = ::open("/proc/self/mounts", O_RDONLY | O_CLOEXEC);
  bool mounted = false;
  for (int changes = 0; changes < 1000 && !(mounted = isMounted(path)); ++changes) {
    pollfd change{table, POLLPRI, 0};
    if (::poll(&change, 1, 30000) <= 0) break;
  }
  ::close(table);
  return mounted;
}

// Waits for what goes from a folder.
class FolderWatch {
 public:
  explicit FolderWatch(const std::string& folder) : iDescriptor(::inotify_init1(IN_CLOEXEC)) {
    ::inotify_add_watch(iDescriptor, folder.c_str(), IN_DELETE);
  }
  ~FolderWatch() { ::close(iDescriptor); }
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;
  bool waitUntilRemoved(const std::string& path) {
    char events[4096];
    while (std::filesystem::exists(path)) {
      pollfd change{iDescriptor, POLLIN, 0};
      if (::poll(&change, 1, 30000) <= 0 || ::read(iDescriptor, events, sizeof events) <= 0) return false;
    }
    return true;
  }

 private:
  const int iDescriptor;
};

class Helper : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/dev/fuse", R_OK | W_OK) != 0 || ::geteuid() != 0) {
      ASSERT_EQ(std::getenv("CI"), nullptr) << "needs /dev/fuse and root";
      GTEST_SKIP() << "needs /dev/fuse, and root for the components' permissions";
    }
    std::filesystem::create_directory(volumes());
    std::filesystem::create_directory(folder.path("server"));
    writeTestFile(folder.path("server/hello.txt"), "hello from the server\n");
  }
  void TearDown() override {
    if (HasFailure() && std::filesystem::exists(folder.path("early.log"))) {
      std::fputs(readTestFile(folder.path("early.log")).c_str(), stderr);
    }
    ::umount2(workPath().c_str(), MNT_DETACH);
  }
  std::string volumes() const { return folder.path("Volumes"); }
  std::string workPath() const { return volumes() + "/Work"; }

  // A folder of this machine as the server.
  std::shared_ptr<KCCredentials> localCredentials() const {
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolFile);
    credentials->setAddress("localhost");
    credentials->setUsername("anna");
    credentials->setInitialPath(folder.path("server"));
    return credentials;
  }
  // Listens on a socket and answers one helper.
  std::string listen(const std::shared_ptr<KCCredentials>& credentials) {
    const std::string path = folder.path("sock" + std::to_string(frontEnds.size()));
    frontEnds.push_back(std::make_unique<FrontEnd>(path, std::string(kName).size(),
                                                   std::vector<NSData>{credentials->archivedData()}));
    frontEnds.back()->start();
    return path;
  }
  std::unique_ptr<HelperProcess> start(const std::shared_ptr<KCCredentials>& credentials,
                                       const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"--sock=" + listen(credentials), "--uuid=" + std::string(kName),
                                       "--name=Work"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<HelperProcess>(folder.path(), bus.address(), arguments);
  }
  std::vector<std::string> logNames() const {
    std::vector<std::string> names;
    for (const auto& entry :
         std::filesystem::directory_iterator(folder.path("state/ombrafs/OmbraFSHelperLogs"))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  NSErrorRef errorOf(const BusNotification& failed) {
    const PropertyValue* value = failed.userInfo.objectForKey("errorData");
    if (value == nullptr || value->asData() == nullptr) return nullptr;
    std::string reason;
    return NSKeyedUnarchiver::unarchivedError(*value->asData(), &reason);
  }

  static constexpr const char* kName = "6FA459EA-EE8A-4CA4-894E-DB77E160355E";
  TestFolder folder;
  const PrivateBus bus;
  BusClient client{bus};
  std::vector<std::unique_ptr<FrontEnd>> frontEnds;
};

TEST_F(Helper, MountsServesUnmountsAndEndsWithStatusZero) {
  const auto helper = start(localCredentials());
  const BusNotification mounted = client.next();
  EXPECT_EQ(mounted.name, "OFSDidMount");
  EXPECT_EQ(mounted.object, kName);
  EXPECT_THAT(mounted.keys, ElementsAre("volumeName", "mountPath", "rootPath", "address"));
  EXPECT_EQ(mounted.userInfo.stringForKey("mountPath"), workPath());
  EXPECT_EQ(mounted.userInfo.stringForKey("rootPath"), "/");
  EXPECT_EQ(frontEnds.front()->receivedName(), kName);
  EXPECT_EQ(readTestFile(workPath() + "/hello.txt"), "hello from the server\n");

  helper->signal(SIGTERM);
  const BusNotification unmounted = client.next();
  EXPECT_EQ(unmounted.name, "OFSDidUnmount");
  EXPECT_THAT(unmounted.keys, ElementsAre("volumeName", "mountPath", "address"));
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_FALSE(client.hasMore());
  EXPECT_FALSE(isMounted(workPath()));
  EXPECT_FALSE(std::filesystem::exists(workPath()));
}

TEST_F(Helper, LeavesItsLogsAndNoCache) {
  const auto helper = start(localCredentials());
  client.next();
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_THAT(logNames(), ElementsAre(StartsWith("Work_"), StartsWith("Work_")));
  EXPECT_THAT(logNames(), ElementsAre(EndsWith("_Console.log"), EndsWith("_Transcript.log")));
  for (const std::string& name : logNames()) {
    EXPECT_THAT(readTestFile(folder.path("state/ombrafs/OmbraFSHelperLogs/" + name)),
                Not(HasSubstr("secret")));
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder.path("data/ombrafs/OmbraDiskCache")));
}

TEST_F(Helper, ThatWasKilledLeavesLitterThatTheNextOneRemoves) {
  const std::string caches = folder.path("data/ombrafs/OmbraDiskCache");
  const auto only = [&caches] { return std::filesystem::directory_iterator(caches)->path().string(); };
  const auto killed = start(localCredentials());
  client.next();
  writeTestFile(workPath() + "/.DS_Store", "litter");
  const std::string left = only();
  killed->signal(SIGKILL);
  killed->end();
  // The folder of a pass-through mount may be named like that too.
  const std::string kept = caches + "/8A2E4C1B-0E4B-4B52-9A55-0F5AE1D3C111";
  std::filesystem::create_directories(kept + "/room");
  FolderWatch watch(caches);
  const auto next = start(localCredentials());
  EXPECT_EQ(client.next().name, "OFSDidMount");
  EXPECT_TRUE(watch.waitUntilRemoved(left));
  EXPECT_TRUE(std::filesystem::exists(kept + "/room"));
  std::filesystem::remove_all(kept);
  EXPECT_TRUE(std::filesystem::exists(only() + "/owner")) << "its own";
  next->signal(SIGTERM);
  EXPECT_EQ(next->end(), "exit 0");
  EXPECT_TRUE(std::filesystem::is_empty(caches));
}

// A line for each request and each reply, of which one moves at least 32 KiB: a hundredth of what is moved.
TEST_F(Helper, TheTranscriptGrowsWithTheConversationAndHoldsNoContent) {
  constexpr size_t kMoved = size_t{2} << 20;
  auto credentials = testCredentials();
  credentials->setOption("sftpServer", "/usr/lib/openssh/sftp-server");
  credentials->setInitialPath(folder.path("server"));
  std::string content;
  while (content.size() < kMoved) content += "The content of a file, line by line.\n";
  writeTestFile(folder.path("server/large.txt"), content);
  const auto helper = start(credentials);
  ASSERT_EQ(client.next().name, "OFSDidMount");
  EXPECT_EQ(readTestFile(workPath() + "/large.txt"), content);
  writeTestFile(workPath() + "/copy.txt", content);
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_EQ(readTestFile(folder.path("server/copy.txt")), content);
  const std::string transcript =
      readTestFile(folder.path("state/ombrafs/OmbraFSHelperLogs/" + logNames().at(1)));
  EXPECT_THAT(transcript, HasSubstr("large.txt"));
  EXPECT_THAT(transcript, HasSubstr("copy.txt"));
  EXPECT_EQ(transcript.find("The content of a file"), std::string::npos);
  const size_t allowed = 2 * kMoved / 100 + (size_t{16} << 10);
  EXPECT_LT(transcript.size(), allowed);
  const size_t lines = static_cast<size_t>(std::count(transcript.begin(), transcript.end(), '\n'));
  EXPECT_LT(lines, 2 * 2 * kMoved / (32 << 10) + 200);
  EXPECT_LT(transcript.size(), lines * 200) << "and no line is long";
}

TEST_F(Helper, WhatIsWrittenReachesTheServerBeforeTheEnd) {
  const auto helper = start(localCredentials());
  client.next();
  writeTestFile(workPath() + "/new.txt", "written through the volume");
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_EQ(readTestFile(folder.path("server/new.txt")), "written through the volume");
}

TEST_F(Helper, AFailedLoginIsAnnouncedWithADecodableError) {
  auto credentials = testCredentials();
  credentials->setOption("sftpServer", "/bin/false");
  const auto helper = start(credentials);
  const BusNotification failed = client.next();
  EXPECT_EQ(failed.name, "OFSMountFailed");
  EXPECT_EQ(failed.object, kName);
  EXPECT_THAT(failed.keys, ElementsAre("volumeName", "mountPath", "address", "errorData"));
  const NSErrorRef error = errorOf(failed);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kQuarnKitErrorDomain);
  const BusNotification unmounted = client.next();
  EXPECT_EQ(unmounted.name, "OFSDidUnmount");
  EXPECT_THAT(unmounted.keys, ElementsAre("volumeName"));
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_FALSE(std::filesystem::exists(workPath()));
}

TEST_F(Helper, WithoutAListenerItFailsWithTheNameAlone) {
  HelperProcess helper(folder.path(), bus.address(),
                       {"--sock=" + folder.path("nobody"), "--uuid=" + std::string(kName), "--name=Work"});
  const BusNotification failed = client.next();
  EXPECT_EQ(failed.name, "OFSMountFailed");
  EXPECT_THAT(failed.keys, ElementsAre("volumeName"));
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(helper.end(), "exit 0");
}

TEST_F(Helper, AnExceptionInTheStartIsAnnouncedAndEndsWithStatusZero) {
  FrontEnd resetting(folder.path("sock"), 0, {});
  resetting.resetInstead();
  resetting.start();
  HelperProcess helper(folder.path(), bus.address(),
                       {"--sock=" + folder.path("sock"), "--uuid=" + std::string(kName), "--name=Work"});
  const BusNotification failed = client.next();
  EXPECT_EQ(failed.name, "OFSMountFailed");
  const NSErrorRef error = errorOf(failed);
  ASSERT_NE(error, nullptr);
  EXPECT_THAT(error->localizedDescription(), StartsWith("read failed, errno = 104"));
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(helper.end(), "exit 0");
}

TEST_F(Helper, WithoutArgumentsItFailsAndEndsWithStatusZero) {
  HelperProcess helper(folder.path(), bus.address(), {});
  const BusNotification failed = client.next();
  EXPECT_EQ(failed.name, "OFSMountFailed");
  EXPECT_EQ(failed.object, std::nullopt);
  EXPECT_THAT(failed.keys, IsEmpty());
  EXPECT_EQ(helper.end(), "exit 0");
}

TEST_F(Helper, ASignalDuringTheStartEndsIt) {
  // A front end that takes the call and never answers.
  FrontEnd silent(folder.path("sock"), 1000, {});
  silent.start();
  HelperProcess helper(folder.path(), bus.address(),
                       {"--sock=" + folder.path("sock"), "--uuid=" + std::string(kName), "--name=Work"});
  silent.waitForConnection();
  helper.signal(SIGINT);
  EXPECT_EQ(client.next().name, "OFSMountFailed");
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(helper.end(), "exit 0");
}

TEST_F(Helper, AnswersForItsStatusAndUnmountsWhenAsked) {
  const auto helper = start(localCredentials());
  client.next();
  std::string error;
  const auto text = client.status(helper->busName(), &error);
  ASSERT_TRUE(text.has_value()) << error;
  const nlohmann::json status = nlohmann::json::parse(*text);
  EXPECT_EQ(status["state"], "mounted");
  EXPECT_EQ(status["mountPath"], workPath());
  EXPECT_EQ(status["pid"], helper->process());
  EXPECT_EQ(status["protocol"], "file");
  EXPECT_TRUE(client.unmount(helper->busName(), false));
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(helper->end(), "exit 0");
}

TEST_F(Helper, AnUnmountFromOutsideEndsIt) {
  const auto helper = start(localCredentials());
  client.next();
  EXPECT_EQ(::umount2(workPath().c_str(), 0), 0);
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(helper->end(), "exit 0");
}

TEST_F(Helper, AnInvalidatedFolderIsListedAgain) {
  const auto helper = start(localCredentials());
  client.next();
  const auto list = [this] {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(workPath()))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  };
  EXPECT_THAT(list(), ElementsAre("hello.txt"));
  writeTestFile(folder.path("server/later.txt"), "x");
  EXPECT_THAT(list(), ElementsAre("hello.txt"));
  client.postInvalidation({workPath()});
  // Nothing is answered. Without the request the old listing would stay for a minute, so half of that is
  // proof.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (list().size() == 1 && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_THAT(list(), ElementsAre("hello.txt", "later.txt"));
}

TEST_F(Helper, ASecondHelperOfAnIdentifierFindsItMounted) {
  const auto first = start(localCredentials(), {"--passthrough=id"});
  const BusNotification mounted = client.next();
  EXPECT_THAT(mounted.keys, ElementsAre("volumeName", "mountPath", "rootPath", "address", "passthrough"));
  const auto second = start(localCredentials(), {"--passthrough=id"});
  const BusNotification already = client.next();
  EXPECT_EQ(already.name, "OFSAlreadyMounted");
  EXPECT_THAT(already.keys, ElementsAre("rootPath", "passthrough"));
  EXPECT_EQ(second->end(), "exit 0");
  EXPECT_FALSE(client.hasMore());
  EXPECT_TRUE(isMounted(workPath()));
  first->signal(SIGTERM);
  EXPECT_EQ(first->end(), "exit 0");
}

TEST_F(Helper, AnIdentifierIsFreeAgainAfterItsOwnersEnd) {
  const auto first = start(localCredentials(), {"--passthrough=id"});
  EXPECT_EQ(client.next().name, "OFSDidMount");
  first->signal(SIGTERM);
  EXPECT_EQ(client.next().name, "OFSDidUnmount");
  EXPECT_EQ(first->end(), "exit 0");
  EXPECT_EQ(readTestFile(folder.path("tmp/OmbraFS.id.pid")).size(), 4u) << "the lock stays, of a dead owner";
  const auto second = start(localCredentials(), {"--passthrough=id"});
  EXPECT_EQ(client.next().name, "OFSDidMount");
  second->signal(SIGTERM);
  EXPECT_EQ(second->end(), "exit 0");
}

TEST_F(Helper, AMountThatTheSystemRefusesIsAnnouncedWithItsPath) {
  std::filesystem::remove(volumes());
  writeTestFile(volumes(), "in the way");
  const auto helper = start(localCredentials());
  const BusNotification failed = client.next();
  EXPECT_EQ(failed.name, "OFSMountFailed");
  EXPECT_THAT(failed.keys, ElementsAre("volumeName", "mountPath", "address", "errorData"));
  EXPECT_EQ(failed.userInfo.stringForKey("mountPath"), workPath());
  const NSErrorRef error = errorOf(failed);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kGMUserFileSystemErrorDomain);
  const BusNotification unmounted = client.next();
  EXPECT_EQ(unmounted.name, "OFSDidUnmount");
  EXPECT_THAT(unmounted.keys, ElementsAre("volumeName"));
  EXPECT_EQ(helper->end(), "exit 0");
  EXPECT_TRUE(std::filesystem::is_empty(folder.path("data/ombrafs/OmbraDiskCache")));
}

TEST_F(Helper, RepairsItsComponentsBeforeItMounts) {
  const DrelFSBundle bundle = DrelFSBundle::bundleInFolder(OMBRA_BUILD_DIR "/libexec/ombrafs");
  // Helpers of other tests that run beside this one repair them too.
  do {
    ASSERT_EQ(::chmod(bundle.loader.c_str(), 0755), 0);
  } while (!DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
  const auto helper = start(localCredentials());
  EXPECT_EQ(client.next().name, "OFSDidMount");
  EXPECT_FALSE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
}

TEST_F(Helper, ANameThatIsNoTextStillMountsAndIsTold) {
  const auto helper = start(localCredentials(), {"--name=a\xFF"});
  const BusNotification mounted = client.next();
  EXPECT_EQ(mounted.name, "OFSDidMount");
  EXPECT_EQ(mounted.userInfo.stringForKey("volumeName"), "a\xEF\xBF\xBD");
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
}

// A feed of the user's own; this copy has none.
TEST_F(Helper, TellsTheDesktopOfALaterVersionOnceItHasMounted) {
  NotificationService desktop(bus, {"body"});
  writeTestFile(folder.path("feed.xml"),
                "<rss><channel><item><sparkle:version>999</sparkle:version></item></channel></rss>");
  const auto first = start(localCredentials(), {"-SUFeedURL", "file://" + folder.path("feed.xml")});
  EXPECT_EQ(client.next().name, "OFSDidMount");
  EXPECT_EQ(desktop.shown(1)[0].title, "Ombra 999 is available");
  first->signal(SIGTERM);
  EXPECT_EQ(first->end(), "exit 0");
  EXPECT_THAT(readTestFile(folder.path("config/ombrafs/defaults.plist")), HasSubstr("SULastCheckTime"));
}

TEST_F(Helper, AFeedThatHangsHoldsUpNeitherTheMountNorTheEnd) {
  const DeafPort deaf;
  const auto helper = start(localCredentials(), {"-SUFeedURL", deaf.url()});
  EXPECT_EQ(client.next().name, "OFSDidMount");
  EXPECT_EQ(readTestFile(workPath() + "/hello.txt"), "hello from the server\n");
  const auto begin = std::chrono::steady_clock::now();
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
  // Far below the quarter of a minute that a connection may take to come about.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(Helper, WithoutAFeedSaysOnceThatUpdatesAreOff) {
  const auto helper = start(localCredentials());
  client.next();
  helper->signal(SIGTERM);
  EXPECT_EQ(helper->end(), "exit 0");
  // What is said before the log of the volume is open goes to where the helper was started.
  const std::string said = readTestFile(folder.path("early.log"));
  const std::string words = "Software updates are off: this copy has no update feed.";
  ASSERT_THAT(said, HasSubstr(words));
  EXPECT_EQ(said.find(words), said.rfind(words));
}

TEST(Loader, TakesNoArguments) {
  const DrelFSBundle bundle = DrelFSBundle::bundleInFolder(OMBRA_BUILD_DIR "/libexec/ombrafs");
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({bundle.loader, "module"}, &output), 2);
  EXPECT_THAT(output, StartsWith("usage: load_drelfs"));
}

TEST_F(Helper, TheLoaderHasNothingToDoWhereTheDeviceIs) {
  const DrelFSBundle bundle = DrelFSBundle::bundleInFolder(OMBRA_BUILD_DIR "/libexec/ombrafs");
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({bundle.loader}, &output), 0);
  EXPECT_EQ(output, "");
}

TEST_F(Helper, MountsWithoutASessionBus) {
  HelperProcess helper(
      folder.path(), "",
      {"--sock=" + listen(localCredentials()), "--uuid=" + std::string(kName), "--name=Work"});
  ASSERT_TRUE(waitUntilMounted(workPath()));
  EXPECT_EQ(readTestFile(workPath() + "/hello.txt"), "hello from the server\n");
  helper.signal(SIGHUP);
  EXPECT_EQ(helper.end(), "exit 0");
}

}  // namespace
}  // namespace ombra
