// Desktop litter stays on this machine, and file managers find the volume's name and icon.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/integration/MountFixture.h"

namespace ombra {
namespace {

class Litter : public MountTest {
 protected:
  void mountData(const std::string& more = {}) { volume = user->mount(more + " " + mountArguments(data())); }
  void unmount() {
    const ShellResult result = user->ombra("unmount " + shellWord(volume));
    ASSERT_EQ(result.status, 0) << result.errors;
  }
  // In the volume's folder; what it printed, and what went wrong.
  std::string in(const std::string& script) {
    const ShellResult result = user->run("cd " + shellWord(volume) + " && " + script);
    return result.output + result.errors;
  }
  std::string onServer(const std::string& script) {
    const ShellResult result = shell("cd " + shellWord(data()) + " && " + script);
    return result.output + result.errors;
  }
  // Where the litter of all volumes is kept.
  std::string caches() { return user->home() + "/data/ombrafs/OmbraDiskCache"; }
  std::string kept() { return shell("ls " + shellWord(caches())).output; }

  std::string volume;
};

TEST_F(Litter, OfACopiedFolderStaysOnThisMachineUntilUnmount) {
  TemporaryFolder mac;
  ASSERT_EQ(shell("cd " + mac.path() +
                  " && mkdir -p photos/.fseventsd && echo a > photos/one.jpg"
                  " && echo b > photos/._one.jpg && echo c > photos/.DS_Store && echo d > photos/Thumbs.db"
                  " && echo e > photos/.fseventsd/log")
                .status,
            0);
  mountData();
  EXPECT_EQ(in("cp -a " + mac.path() + "/photos . && diff -r " + mac.path() + "/photos photos"), "");
  EXPECT_EQ(onServer("find . -type f"), "./photos/one.jpg\n");
  EXPECT_EQ(in("ls -A photos"), ".DS_Store\n._one.jpg\n.fseventsd\nThumbs.db\none.jpg\n");
  EXPECT_NE(kept(), "");
  unmount();
  EXPECT_TRUE(eventually([this] { return kept().empty(); })) << kept();
  mountData();
  EXPECT_EQ(in("ls -A photos"), "one.jpg\n");
}

TEST_F(Litter, OfAPassThroughMountIsThereAgainAtTheNext) {
  mountData("--passthrough home");
  EXPECT_EQ(in("echo x > .DS_Store && cat .DS_Store"), "x\n");
  unmount();
  EXPECT_EQ(kept(), "home\n");
  mountData("--passthrough home");
  EXPECT_EQ(in("cat .DS_Store"), "x\n");
  EXPECT_EQ(onServer("ls -A"), "");
}

TEST_F(Litter, GoesWithItsFolderAndMovesAndIsRenamedLikeAnyFile) {
  mountData();
  EXPECT_EQ(in("mkdir a && echo x > a/.DS_Store && mv a b && cat b/.DS_Store && rmdir b && ls -A"), "x\n");
  EXPECT_EQ(in("echo draft > ._draft && mv ._draft document && cat document"), "draft\n");
  EXPECT_EQ(onServer("cat document"), "draft\n");
  EXPECT_EQ(in("mv document ._draft && cat ._draft && mkdir c && mv ._draft c/document"), "draft\n");
  EXPECT_EQ(onServer("cat c/document && ls -A"), "draft\nc\n");
}

TEST_F(Litter, OfOtherMachinesIsReadAndRemovedOnTheServer) {
  onServer("mkdir a && echo mac > a/.DS_Store && echo win > a/desktop.ini");
  mountData();
  EXPECT_EQ(in("cat a/.DS_Store a/desktop.ini && echo mine > a/desktop.ini && cat a/desktop.ini"),
            "mac\nwin\nmine\n");
  EXPECT_EQ(onServer("cat a/desktop.ini"), "win\n");
  EXPECT_EQ(in("rm -r a && ls -A"), "");
  EXPECT_EQ(onServer("ls -A"), "");
}

TEST_F(Litter, NameAndIconAreShownToFileManagersAndNotListed) {
  TemporaryFolder icons;
  std::ofstream(icons / "my, \"icon\".svg") << "<svg/>";
  mountData("--name 'B\u00fcro 1' --icon " + shellWord(icons / "my, \"icon\".svg"));
  const std::string info = in("cat .xdg-volume-info");
  EXPECT_TRUE(info.starts_with("[Volume Info]\n")) << info;
  EXPECT_NE(info.find("\nName=B\u00fcro 1\n"), std::string::npos) << info;
  EXPECT_NE(info.find("\nIconFile=.VolumeIcon.svg\n"), std::string::npos) << info;
  EXPECT_EQ(in("cat .VolumeIcon.svg"), "<svg/>");
  EXPECT_EQ(in("ls -A"), "");
  EXPECT_EQ(onServer("ls -A"), "");
}

TEST_F(Litter, AnIconThatIsMissingIsSaidBeforeAnythingIsMounted) {
  const ShellResult result = user->ombra("mount --icon /nonexistent.png " + mountArguments(data()));
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.errors.find("/nonexistent.png"), std::string::npos) << result.errors;
}

// Half an installation is no reason to keep people from their files.
TEST_F(Litter, GoesToTheServerWhereTheModuleIsMissingAndTheLogSaysSo) {
  TemporaryFolder programs;
  ASSERT_EQ(shell("cd " + programs.path() + " && mkdir bin && cp -a " + OMBRA_BUILD_DIR +
                  "/bin/ombra bin && cp -a " + OMBRA_BUILD_DIR +
                  "/libexec . && rm libexec/ombrafs/libfusemod_redirect.so")
                .status,
            0);
  const std::string ombra = programs / "bin/ombra ";
  const std::string name = ownName("bare");
  const ShellResult mounted = user->run(ombra + "mount --name " + name + " " + shellWord("file://" + data()));
  ASSERT_EQ(mounted.status, 0) << mounted.errors;
  EXPECT_EQ(user->run("echo x > /Volumes/" + name + "/.DS_Store").status, 0);
  EXPECT_EQ(onServer("cat .DS_Store"), "x\n");
  EXPECT_NE(user->run(ombra + "logs " + name).output.find("libfusemod_redirect.so"), std::string::npos);
  EXPECT_EQ(user->run(ombra + "unmount " + name).status, 0);
}

}  // namespace
}  // namespace ombra
