// The helper's object on the session bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "fshelper/OFSStatus.h"
#include "platform/foundation/RunLoop.h"
#include "tests/fshelper/controller/ControllerFixture.h"
#include "tests/fshelper/controller/PrivateBus.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::StartsWith;

class Status : public ControllerTest {
 protected:
  // Runs `work` on a thread of its own while the event loop answers.
  void whileTheLoopRuns(const std::function<void()>& work) {
    std::atomic<bool> done{false};
    std::thread client([&] {
      work();
      done = true;
      RunLoop::mainRunLoop().perform([] {});
    });
    while (!done) RunLoop::mainRunLoop().runOnce(1000000);
    client.join();
  }
  // The members of an answer that tell who this is; the rest is that of a volume at rest.
  static nlohmann::json atRest(nlohmann::json identity, uint64_t budget) {
    identity.update({{"transfers", nlohmann::json::array()},
                     {"waiting", nlohmann::json::array()},
                     {"transferCount", 0},
                     {"waitingCount", 0},
                     {"waitingBytes", 0},
                     {"bytesReceived", 0},
                     {"bytesSent", 0},
                     {"cache", {{"used", 0}, {"budget", budget}}},
                     {"startFolderError", nullptr},
                     {"lastError", nullptr}});
    return identity;
  }
  const std::string name = "org.ombrafs.helper.pid" + std::to_string(getpid());
};

class StatusOnTheBus : public Status {
 protected:
  const PrivateBus bus;
  const TestVariable iAddress{"DBUS_SESSION_BUS_ADDRESS", bus.address()};
};

TEST_F(Status, BeforeTheStartKnowsTheProcessAlone) {
  controller = std::make_unique<OFSController>(environment);
  const nlohmann::json status = nlohmann::json::parse(OFSStatus(*controller).statusText());
  EXPECT_EQ(status, atRest({{"volumeName", nullptr},
                            {"mountPath", nullptr},
                            {"registeredName", nullptr},
                            {"address", nullptr},
                            {"username", nullptr},
                            {"protocol", nullptr},
                            {"pid", getpid()},
                            {"state", "starting"}},
                           0));
}

TEST_F(Status, OfAMountedVolume) {
  launch(arguments());
  postDidMount();
  fileSystem->setCacheBudget(4096, std::nullopt);
  const nlohmann::json status = nlohmann::json::parse(OFSStatus(*controller).statusText());
  EXPECT_EQ(status, atRest({{"volumeName", "Work"},
                            {"mountPath", volumes() + "/Work"},
                            {"registeredName", kName},
                            {"address", "files.example.org"},
                            {"username", "anna"},
                            {"protocol", "sftp"},
                            {"pid", getpid()},
                            {"state", "mounted"}},
                           4096));
}

TEST_F(Status, TellsWhyTheVolumeDoesNotShowTheFolderOfItsURL) {
  launch(arguments());
  fileSystem->setStartFolderError(QuarnKitError::errorWithCode(kQuarnKitNoSuchItem));
  const nlohmann::json status = nlohmann::json::parse(OFSStatus(*controller).statusText());
  EXPECT_EQ(status["startFolderError"]["code"], kQuarnKitNoSuchItem);
  EXPECT_EQ(status["startFolderError"]["text"], QuarnKitError::textForCode(kQuarnKitNoSuchItem));
}

TEST_F(Status, GoesThroughItsStates) {
  const auto state = [this] { return nlohmann::json::parse(OFSStatus(*controller).statusText())["state"]; };
  launch(arguments());
  EXPECT_EQ(state(), "mounting");
  postDidMount();
  EXPECT_EQ(state(), "mounted");
  controller->requestUnmount(false);
  EXPECT_EQ(state(), "unmounting");
}

TEST_F(Status, ANameThatIsNoTextIsMadeOne) {
  controller = std::make_unique<OFSController>(environment);
  controller->setVolumeName("a\xFF");
  EXPECT_EQ(nlohmann::json::parse(OFSStatus(*controller).statusText())["volumeName"], "a\xEF\xBF\xBD");
}

TEST_F(StatusOnTheBus, IsAnsweredUnderTheHelpersName) {
  launch(arguments());
  OFSStatus status(*controller);
  ASSERT_TRUE(status.start(RunLoop::mainRunLoop()));
  std::optional<std::string> answer;
  whileTheLoopRuns([&] {
    BusClient client(bus);
    answer = client.status(name);
  });
  EXPECT_EQ(answer, status.statusText());
}

class StatusUnmount : public StatusOnTheBus, public ::testing::WithParamInterface<bool> {};

TEST_P(StatusUnmount, AnswersAndUnmounts) {
  launch(arguments());
  postDidMount();
  mount->iCalls.clear();
  OFSStatus status(*controller);
  ASSERT_TRUE(status.start(RunLoop::mainRunLoop()));
  bool answered = false;
  whileTheLoopRuns([&] {
    BusClient client(bus);
    answered = client.unmount(name, GetParam());
    // A second answer tells that the first request has been carried out.
    client.status(name);
  });
  EXPECT_TRUE(answered);
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount"));
  EXPECT_EQ(server.count("shutDown"), GetParam() ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Force, StatusUnmount, ::testing::Bool());

TEST_F(StatusOnTheBus, TheNameIsGoneWithTheObject) {
  controller = std::make_unique<OFSController>(environment);
  BusClient client(bus);
  {
    OFSStatus status(*controller);
    ASSERT_TRUE(status.start(RunLoop::mainRunLoop()));
    EXPECT_TRUE(client.hasOwner(name));
  }
  // The bus notices the end of a connection in its own time; each question is a round trip to it.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (client.hasOwner(name) && std::chrono::steady_clock::now() < limit) {
  }
  EXPECT_FALSE(client.hasOwner(name));
}

TEST_F(Status, WithoutABusItIsLoggedOnceAndTheHelperGoesOn) {
  const TestVariable nowhere("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + folder.path("nobody"));
  controller = std::make_unique<OFSController>(environment);
  OFSStatus status(*controller);
  EXPECT_FALSE(status.start(RunLoop::mainRunLoop()));
  EXPECT_THAT(log.lines(), Contains(StartsWith("The state of this helper cannot be asked for: ")));
}

}  // namespace
}  // namespace ombra
