#include "tests/fshelper/controller/ControllerFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fshelper/OFSTracing.h"
#include "platform/foundation/Gestalt.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSUserDefaults.h"

namespace ombra {

ControllerTest::ControllerTest() : iStandardError(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
  ::mkdir(volumes().c_str(), 0755);
  setDefault("VolumesFolder", volumes());
  server.credentials()->setAddress("files.example.org");
  server.credentials()->setUsername("anna");
  server.setObserver([this](const ScriptedCall& call) {
    if (call.name == "connect" || call.name == "setMaximumConnections") journal.push_back(call.text());
  });
  environment.exit = [this](int status) {
    journal.push_back("exit " + std::to_string(status));
    throw ProcessEnded{status};
  };
  environment.modifierFlags = [this] {
    journal.emplace_back("modifierFlags");
    return 0U;
  };
  environment.updateFeed = "https://updates.example.org/regular.xml";
  environment.stagingUpdateFeed = "https://updates.example.org/staging.xml";
  // Nothing is fetched.
  environment.lookForUpdates = [this] { ++looksForUpdates; };
  environment.removeAbandonedLitter = [this] { ++removesAbandonedLitter; };
  environment.shouldFixDrelFSPermissions = [this] {
    journal.emplace_back("shouldFix");
    return false;
  };
  environment.fixDrelFSPermissions = [this](NSErrorRef*) {
    journal.emplace_back("fix");
    return true;
  };
  environment.makeConnectionPool = [this](std::shared_ptr<KCCredentials> credentials, NSErrorRef*) {
    journal.emplace_back("makeConnectionPool");
    fetched = std::move(credentials);
    return server.pool();
  };
  environment.makeFileSystem = [this](GMUserFileSystemDelegate* delegate, bool threadSafe) {
    journal.emplace_back("makeFileSystem");
    fileSystem = dynamic_cast<OmbraFileSystem*>(delegate);
    isThreadSafe = threadSafe;
    return mount;
  };
  environment.lockFile = [this](const std::string&) {
    journal.emplace_back("lockFile");
    return 1;
  };
  environment.willRequestMount = [this] { journal.emplace_back("willRequestMount"); };
}

ControllerTest::~ControllerTest() {
  controller.reset();
  ::dup2(iStandardError, STDERR_FILENO);
  ::close(iStandardError);
  for (const std::string& key : iChangedDefaults)
    NSUserDefaults::standardUserDefaults().setVolatileObject({}, key);
  GMUserFileSystem::setVolumesFolder("/Volumes");
  gTracingEnabled = false;
  DeleteGestaltValue(fourCharacterCode("KDbg"));
  ofs_forgetDebugLogging();
}

std::vector<std::string> ControllerTest::arguments(const std::vector<std::string>& more) {
  const std::string name = kName;
  frontEnd = std::make_unique<FrontEnd>(folder.path("sock"), name.size(),
                                        std::vector<NSData>{testCredentials()->archivedData()});
  frontEnd->start();
  std::vector<std::string> all{"--sock=" + folder.path("sock"), "--uuid=" + name};
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

std::optional<int> ControllerTest::launch(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv{programPath.c_str()};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  NSProcessInfo::setArguments(static_cast<int>(argv.size()), argv.data());
  controller = std::make_unique<OFSController>(environment);
  return statusOf([this] { controller->finishLaunching(); });
}

std::optional<int> ControllerTest::postLocally(std::string_view name, NSDictionary userInfo) {
  return statusOf([&] {
    NSNotificationCenter::defaultCenter().postNotification(
        {std::string(name), std::nullopt, std::move(userInfo)});
  });
}

std::optional<int> ControllerTest::postDidMount() {
  return postLocally(kGMUserFileSystemDidMount, {{"mountPath", mount->iPath}});
}

void ControllerTest::setDefault(std::string_view key, PropertyValue value) {
  NSUserDefaults::standardUserDefaults().setVolatileObject(std::move(value), key);
  iChangedDefaults.emplace_back(key);
}

std::string ControllerTest::option(const std::string& prefix) const {
  for (const std::string& option : mount->iOptions) {
    if (option.starts_with(prefix)) return option.substr(prefix.size());
  }
  ADD_FAILURE() << "no option " << prefix;
  return {};
}

}  // namespace ombra
