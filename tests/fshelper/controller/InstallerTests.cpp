// The permissions of the file system's components, and the administrator rights that repair them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "fshelper/DrelFSInstaller.h"
#include "remote/KCAuthorizationManager.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Records commands; answers success, or what the test has set.
class ScriptedAuthorization final : public KCAuthorizationManager {
 public:
  bool root = true;
  std::vector<std::string> programs{"/usr/bin/pkexec", "/usr/bin/sudo"};
  std::map<std::string, int> statusOfProgram;  // by the first word
  int failAt = 0;                              // number of the call that fails, from 1
  std::string words = "no way";
  std::vector<std::string> commands;

 protected:
  int run(const std::vector<std::string>& arguments, std::string* output) override {
    std::string line;
    for (const std::string& argument : arguments) line += (line.empty() ? "" : " ") + argument;
    commands.push_back(line);
    const auto scripted = statusOfProgram.find(arguments.front());
    const int status = scripted != statusOfProgram.end()             ? scripted->second
                       : static_cast<int>(commands.size()) == failAt ? 1
                                                                     : 0;
    if (status != 0) *output = words;
    return status;
  }
  bool isRoot() const override { return root; }
  bool isExecutable(const std::string& path) const override {
    return std::find(programs.begin(), programs.end(), path) != programs.end();
  }
};

// A bundle of the test's own, as it should be. Changing owners takes root.
class Installer : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) {
      ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root to give files to other owners";
      GTEST_SKIP() << "needs root to give files to other owners";
    }
    std::filesystem::create_directories(bundle.extension + "/Contents");
    writeTestFile(bundle.extension + "/Contents/modules-load.conf", "fuse\n");
    writeTestFile(bundle.loader, "#!/bin/sh\n");
    ::chown(bundle.extension.c_str(), 0, 0);
    ::chown(bundle.loader.c_str(), 0, 0);
    ::chmod(bundle.loader.c_str(), 04755);
  }
  TestFolder folder;
  const DrelFSBundle bundle = DrelFSBundle::bundleInFolder(folder.path());
  ScriptedAuthorization authorization;
};

TEST_F(Installer, TheComponentsLieInTheBundle) {
  const std::string components =
      folder.path("ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components");
  EXPECT_EQ(bundle.extension, components + "/ombradiskfs.kext");
  EXPECT_EQ(bundle.loader, components + "/load_drelfs");
  EXPECT_EQ(bundle.repair, folder.path("repair_drelfs"));
}

TEST_F(Installer, ARightBundleNeedsNoRepair) {
  EXPECT_FALSE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, AnExtensionOfAnotherOwnerNeedsRepair) {
  ::chown(bundle.extension.c_str(), 65534, 0);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, AnExtensionOfAnotherGroupNeedsRepair) {
  ::chown(bundle.extension.c_str(), 0, 65534);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, ALoaderOfAnotherOwnerNeedsRepair) {
  ::chown(bundle.loader.c_str(), 65534, 0);
  ::chmod(bundle.loader.c_str(), 04755);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, ALoaderOfAnotherGroupNeedsRepair) {
  ::chown(bundle.loader.c_str(), 0, 65534);
  ::chmod(bundle.loader.c_str(), 04755);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, ALoaderWithoutTheSetUserIDBitNeedsRepair) {
  ::chmod(bundle.loader.c_str(), 0755);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, ALoaderWithTheSetGroupIDBitAloneNeedsRepair) {
  ::chmod(bundle.loader.c_str(), 02755);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, AnExtensionThatOthersMayWriteNeedsNone) {
  ::chmod(bundle.extension.c_str(), 0777);
  EXPECT_FALSE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, AMissingExtensionNeedsRepair) {
  std::filesystem::remove_all(bundle.extension);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, AMissingLoaderNeedsRepair) {
  std::filesystem::remove(bundle.loader);
  EXPECT_TRUE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
}

TEST_F(Installer, TheRepairTakesFourStepsInOrder) {
  EXPECT_TRUE(DrelFSInstaller::fixDrelFSPermissions(bundle, authorization, nullptr));
  EXPECT_THAT(authorization.commands, ElementsAre("/usr/bin/chown -h -R -P -- root:0 " + bundle.extension,
                                                  "/usr/bin/chmod -R -- go-w " + bundle.extension,
                                                  "/usr/bin/chown -h -R -P -- root:0 " + bundle.loader,
                                                  "/usr/bin/chmod -- u+s " + bundle.loader));
}

TEST_F(Installer, TheQuestionNamesOnlyAProgramThatIsRootsOwn) {
  authorization.root = false;
  const auto firstStep = [this] {
    authorization.commands.clear();
    EXPECT_TRUE(DrelFSInstaller::fixDrelFSPermissions(bundle, authorization, nullptr));
    return authorization.commands.front();
  };
  const std::string step = "/usr/bin/chown -h -R -P -- root:0 " + bundle.extension;
  writeTestFile(bundle.repair, "#!/bin/sh\n");
  ::chmod(bundle.repair.c_str(), 0775);
  EXPECT_EQ(firstStep(), "/usr/bin/pkexec --disable-internal-agent " + step);
  ::chmod(bundle.repair.c_str(), 0755);
  ::chown(bundle.repair.c_str(), 65534, 0);
  EXPECT_EQ(firstStep(), "/usr/bin/pkexec --disable-internal-agent " + step);
  ::chown(bundle.repair.c_str(), 0, 0);
  EXPECT_EQ(firstStep(), "/usr/bin/pkexec --disable-internal-agent " + bundle.repair + " " + step);
}

class InstallerFailure : public Installer, public ::testing::WithParamInterface<int> {};

TEST_P(InstallerFailure, EndsTheRepairThereWithTheError) {
  authorization.failAt = GetParam();
  NSErrorRef error;
  EXPECT_FALSE(DrelFSInstaller::fixDrelFSPermissions(bundle, authorization, &error));
  EXPECT_EQ(authorization.commands.size(), static_cast<size_t>(GetParam()));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), kEPERM);
}

INSTANTIATE_TEST_SUITE_P(Steps, InstallerFailure, ::testing::Values(1, 2, 3, 4));

TEST_F(Installer, AMissingExtensionIsToldBeforeAnybodyIsAskedForRights) {
  std::filesystem::remove_all(bundle.extension);
  NSErrorRef error;
  EXPECT_FALSE(DrelFSInstaller::fixDrelFSPermissions(bundle, authorization, &error));
  EXPECT_THAT(authorization.commands, IsEmpty());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), kENOENT);
  EXPECT_EQ(error->localizedDescription(), "A part of the program is missing: " + bundle.extension);
}

TEST_F(Installer, AMissingLoaderEndsTheRepairAfterTheExtensionsSteps) {
  std::filesystem::remove(bundle.loader);
  NSErrorRef error;
  EXPECT_FALSE(DrelFSInstaller::fixDrelFSPermissions(bundle, authorization, &error));
  EXPECT_EQ(authorization.commands.size(), 2u);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->localizedDescription(), "A part of the program is missing: " + bundle.loader);
  EXPECT_EQ(error->userInfo().stringForKey(NSLocalizedRecoverySuggestionErrorKey),
            "Install the program again.");
}

TEST_F(Installer, TheRepairWorksForReal) {
  ::chown(bundle.extension.c_str(), 65534, 65534);
  ::chmod(bundle.extension.c_str(), 0777);
  ::chown(bundle.loader.c_str(), 65534, 65534);
  KCAuthorizationManager real;
  NSErrorRef error;
  EXPECT_TRUE(DrelFSInstaller::fixDrelFSPermissions(bundle, real, &error))
      << (error ? error->description() : "");
  EXPECT_FALSE(DrelFSInstaller::shouldFixDrelFSPermissions(bundle));
  struct stat status {};
  ::stat(bundle.extension.c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0755u);
}

TEST_F(Installer, ALoaderThatIsALinkIsNotGivenTheBit) {
  const std::string victim = folder.path("victim");
  writeTestFile(victim, "x");
  std::filesystem::remove(bundle.loader);
  ASSERT_EQ(::symlink(victim.c_str(), bundle.loader.c_str()), 0);
  KCAuthorizationManager real;
  NSErrorRef error;
  EXPECT_FALSE(DrelFSInstaller::fixDrelFSPermissions(bundle, real, &error));
  struct stat status {};
  ::stat(victim.c_str(), &status);
  EXPECT_EQ(status.st_mode & 04000, 0u);
}

class Authorization : public ::testing::Test {
 protected:
  bool change(NSErrorRef* error = nullptr) {
    return authorization.chmodWithPrivilegesItemAtPath("/x y;z", "u+s", false, error);
  }
  ScriptedAuthorization authorization;
};

TEST_F(Authorization, RootRunsTheProgramDirectly) {
  EXPECT_TRUE(change());
  EXPECT_THAT(authorization.commands, ElementsAre("/usr/bin/chmod -- u+s /x y;z"));
}

TEST_F(Authorization, OthersGoThroughPkexec) {
  authorization.root = false;
  EXPECT_TRUE(change());
  EXPECT_THAT(authorization.commands,
              ElementsAre("/usr/bin/pkexec --disable-internal-agent /usr/bin/chmod -- u+s /x y;z"));
}

TEST_F(Authorization, PkexecStartsTheProgramOfTheStepsAndSudoTheCommandItself) {
  authorization.root = false;
  authorization.setStepProgram("/opt/repair");
  authorization.statusOfProgram["/usr/bin/pkexec"] = 127;
  EXPECT_TRUE(change());
  EXPECT_THAT(authorization.commands,
              ElementsAre("/usr/bin/pkexec --disable-internal-agent /opt/repair /usr/bin/chmod -- u+s /x y;z",
                          "/usr/bin/sudo -n -- /usr/bin/chmod -- u+s /x y;z"));
}

TEST_F(Authorization, WithoutPkexecSudoIsUsedAndNeverAsks) {
  authorization.root = false;
  authorization.programs = {"/usr/bin/sudo"};
  EXPECT_TRUE(change());
  EXPECT_THAT(authorization.commands, ElementsAre("/usr/bin/sudo -n -- /usr/bin/chmod -- u+s /x y;z"));
}

TEST_F(Authorization, APkexecThatCannotAskIsFollowedBySudo) {
  authorization.root = false;
  authorization.statusOfProgram["/usr/bin/pkexec"] = 127;
  EXPECT_TRUE(change());
  EXPECT_EQ(authorization.commands.size(), 2u);
}

TEST_F(Authorization, AUserWhoDeclinesIsNotGoneAround) {
  authorization.root = false;
  authorization.statusOfProgram["/usr/bin/pkexec"] = 126;
  NSErrorRef error;
  EXPECT_FALSE(change(&error));
  EXPECT_EQ(authorization.commands.size(), 1u);
}

TEST_F(Authorization, WithNeitherNothingIsRunAndTheErrorSaysWhatToDo) {
  authorization.root = false;
  authorization.programs = {};
  NSErrorRef error;
  EXPECT_FALSE(change(&error));
  EXPECT_THAT(authorization.commands, IsEmpty());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->userInfo().stringForKey(NSLocalizedFailureReasonErrorKey),
            "Neither pkexec nor sudo is installed.");
  EXPECT_EQ(error->userInfo().stringForKey(NSLocalizedRecoverySuggestionErrorKey),
            "Install the package again, or run as root: /usr/bin/chmod -- u+s /x y;z");
}

TEST_F(Authorization, TheErrorHoldsTheProgramsWords) {
  authorization.failAt = 1;
  NSErrorRef error;
  EXPECT_FALSE(change(&error));
  EXPECT_EQ(error->userInfo().stringForKey(NSLocalizedFailureReasonErrorKey), "no way");
}

TEST(Command, ItsOutputAndStatusAreTaken) {
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"}, &output),
            3);
  EXPECT_EQ(output, "out\nerr");
}

TEST(Command, ItsOutputIsBounded) {
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({"/usr/bin/head", "-c", "100000", "/dev/zero"}, &output), 0);
  EXPECT_EQ(output.size(), 4096u);
}

TEST(Command, ItSeesNothingOfOurEnvironment) {
  const TestVariable secret("OMBRA_SECRET", "x");
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({"/usr/bin/env"}, &output), 0);
  EXPECT_EQ(output, "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C.UTF-8");
}

TEST(Command, AMissingProgramIsTold) {
  std::string output;
  EXPECT_EQ(KCAuthorizationManager::runCommand({"/nonexistent/program"}, &output), 127);
  EXPECT_THAT(output, HasSubstr("/nonexistent/program"));
}

TEST(Command, AnEndBySignalIsTold) {
  EXPECT_EQ(KCAuthorizationManager::runCommand({"/bin/sh", "-c", "kill -9 $$"}, nullptr), 137);
}

}  // namespace
}  // namespace ombra
