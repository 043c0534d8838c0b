// A controller whose surroundings a test holds in its hands.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fshelper/OFSController.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"
#include "tests/support/ScriptedServer.h"

namespace ombra {

// Raised where the process would end.
struct ProcessEnded {
  int status = 0;
};

// Folders, defaults and arguments of its own; a front end that answers with `testCredentials()`; a scripted
// server behind the pool; a recording mount. `journal` notes what the controller reaches, in order.
class ControllerTest : public ::testing::Test {
 protected:
  ControllerTest();
  ~ControllerTest() override;

  // Makes the controller with the given arguments (`programPath` is put first) and starts it. The exit
  // status when the process would have ended; absent when it goes on.
  std::optional<int> launch(const std::vector<std::string>& arguments);
  // "--sock=" and "--uuid=" with a listening front end, and more.
  std::vector<std::string> arguments(const std::vector<std::string>& more = {"--name=Work"});
  // Runs what ends the process; the status, absent when it did not end.
  template <typename Work>
  std::optional<int> statusOf(Work&& work) {
    try {
      work();
    } catch (const ProcessEnded& ended) {
      return ended.status;
    }
    return std::nullopt;
  }
  // As the framework does.
  std::optional<int> postLocally(std::string_view name, NSDictionary userInfo);
  std::optional<int> postDidMount();
  void setDefault(std::string_view key, PropertyValue value);
  std::string logFolder() const { return folder.path("state/ombrafs/OmbraFSHelperLogs"); }
  std::string cachesFolder() const { return folder.path("data/ombrafs/OmbraDiskCache"); }
  std::string volumes() const { return folder.path("Volumes"); }
  // The value of the option that begins with `prefix`; fails the test when there is none.
  std::string option(const std::string& prefix) const;

  static constexpr const char* kName = "6FA459EA-EE8A-4CA4-894E-DB77E160355E";

  TestFolder folder;
  const TestVariable iState{"XDG_STATE_HOME", folder.path("state")};
  const TestVariable iData{"XDG_DATA_HOME", folder.path("data")};
  const TestVariable iConfiguration{"XDG_CONFIG_HOME", folder.path("config")};
  const TestVariable iTemporary{"OMBRAFS_TMPDIR", folder.path("tmp")};
  LogRecord log;
  RecordingCenter center;
  ScriptedServer server;
  const std::shared_ptr<RecordingMount> mount = std::make_shared<RecordingMount>();
  std::vector<std::string> journal;
  int looksForUpdates = 0;
  int removesAbandonedLitter = 0;
  OFSControllerEnvironment environment;
  std::string programPath = "/usr/libexec/ombrafs/ombrafs-helper";
  std::unique_ptr<FrontEnd> frontEnd;
  // What came over the socket; the file system that the controller made.
  std::shared_ptr<KCCredentials> fetched;
  OmbraFileSystem* fileSystem = nullptr;
  bool isThreadSafe = false;
  std::unique_ptr<OFSController> controller;

 private:
  int iStandardError;
  std::vector<std::string> iChangedDefaults;
};

}  // namespace ombra
