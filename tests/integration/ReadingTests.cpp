// What programs read from a mounted folder is what the server has.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/integration/MountFixture.h"

namespace ombra {
namespace {

class Reading : public MountTest {
 protected:
  // A folder tree with a bit of everything.
  void makeTree() {
    const ShellResult made =
        shell("cd " + shellWord(data()) +
              " && mkdir -p a/b/c empty 'with space' && echo one > a/one && echo two > a/b/two"
              " && head -c 300000 /dev/urandom > a/b/c/blob && : > a/nothing"
              " && chmod 600 a/one && chmod 755 a/b/two && touch -d '2001-02-03 04:05:06' a/one");
    ASSERT_EQ(made.status, 0) << made.errors;
  }
  std::string mountData() { return user->mount(mountArguments(data())); }
};

TEST_F(Reading, RecursiveListingShowsTypesSizesModesAndDatesOfTheServer) {
  makeTree();
  const std::string volume = mountData();
  // Folders always show their owner's search permission, which these have; file modes are shown as they are.
  const std::string list =
      " && find . -mindepth 1 -printf '%y %m %s %Ts %p\\n' | sed 's/^d \\([0-7]*\\) [0-9]* /d \\1 /' | sort";
  const ShellResult there = shell("cd " + shellWord(data()) + list);
  const ShellResult here = user->run("cd " + shellWord(volume) + list);
  EXPECT_EQ(here.status, 0) << here.errors;
  EXPECT_EQ(here.output, there.output);
  EXPECT_EQ(user->run("ls -lR " + shellWord(volume)).status, 0);
}

TEST_F(Reading, CopiesAreEqualByCpTarAndGrep) {
  makeTree();
  const std::string volume = mountData();
  TemporaryFolder copy;
  EXPECT_EQ(user->run("cp -r " + shellWord(volume) + " " + shellWord(copy.path() + "/cp")).status, 0);
  EXPECT_EQ(shell("diff -r " + shellWord(copy.path() + "/cp") + " " + shellWord(data())).output, "");
  EXPECT_EQ(user->run("mkdir " + shellWord(copy.path() + "/tar") + " && tar c -C " + shellWord(volume) +
                      " . | tar x -C " + shellWord(copy.path() + "/tar"))
                .status,
            0);
  EXPECT_EQ(shell("diff -r " + shellWord(copy.path() + "/tar") + " " + shellWord(data())).output, "");
  const ShellResult found = user->run("cd " + shellWord(volume) + " && grep -r two . ");
  EXPECT_EQ(found.output, "./a/b/two:two\n");
}

TEST_F(Reading, ChecksumOfAGibibyteIsRight) {
  const ShellResult made =
      shell("cd " + shellWord(data()) +
            " && truncate -s 1G big && for i in 0 100 511 777 1023; do head -c 1048576 "
            "/dev/urandom | dd of=big bs=1M seek=$i conv=notrunc status=none; done && md5sum < big");
  ASSERT_EQ(made.status, 0) << made.errors;
  const std::string volume = mountData();
  EXPECT_EQ(user->run("md5sum < " + shellWord(volume + "/big")).output, made.output);
}

TEST_F(Reading, TwoHundredFilesAreReadWhileAllAreOpen) {
  for (int i = 0; i < 200; ++i) std::ofstream(data() + "/f" + std::to_string(i)) << "content of " << i;
  const std::string volume = mountData();
  std::vector<int> open200;
  for (int i = 0; i < 200; ++i)
    open200.push_back(open((volume + "/f" + std::to_string(i)).c_str(), O_RDONLY));
  for (int i = 199; i >= 0; --i) {
    const int descriptor = open200[static_cast<size_t>(i)];
    ASSERT_GE(descriptor, 0) << i;
    char text[64] = {};
    EXPECT_GT(pread(descriptor, text, sizeof text, 0), 0);
    EXPECT_EQ(std::string(text), "content of " + std::to_string(i));
  }
  for (const int descriptor : open200) close(descriptor);
}

TEST_F(Reading, NamesComeByteForByteWhateverTheyHold) {
  const std::vector<std::string> names = {"with space",
                                          "quote'\"back\\slash",
                                          "new\nline",
                                          std::string(255, 'n'),
                                          "composed \xC3\xA9",
                                          "decomposed e\xCC\x81",
                                          "latin \xE9 invalid",
                                          "-dash",
                                          "*?[x]",
                                          "\xE6\x97\xA5\xE6\x9C\xAC"};
  for (const std::string& name : names) {
    std::ofstream file(data() + "/" + name);
    ASSERT_TRUE(file) << name;
    file << "in " << name;
  }
  const std::string volume = mountData();
  const ShellResult list =
      user->run("cd " + shellWord(volume) + " && find . -mindepth 1 -print0 | sort -z | tr '\\0' '|'");
  const ShellResult expected =
      shell("cd " + shellWord(data()) + " && find . -mindepth 1 -print0 | sort -z | tr '\\0' '|'",
            {{"LC_ALL", "C.UTF-8"}});
  EXPECT_EQ(list.output, expected.output);
  for (const std::string& name : names) {
    std::ifstream file(volume + "/" + name);
    std::string text((std::istreambuf_iterator<char>(file)), {});
    EXPECT_EQ(text, "in " + name);
  }
}

TEST_F(Reading, ANameIsFoundInEitherUnicodeForm) {
  std::ofstream(data() + "/caf\xC3\xA9") << "composed on the server";
  const std::string volume = mountData();
  std::ifstream file(volume + "/cafe\xCC\x81");
  std::string text((std::istreambuf_iterator<char>(file)), {});
  EXPECT_EQ(text, "composed on the server");
}

TEST_F(Reading, LinksInsideStayLinksAndLinksOutsideShowWhatTheyPointTo) {
  TemporaryFolder outside;
  std::ofstream(outside.path() + "/file") << "outside";
  std::filesystem::create_directory(outside.path() + "/folder");
  std::ofstream(outside.path() + "/folder/deep") << "deep outside";
  std::filesystem::create_directory(data() + "/d");
  std::ofstream(data() + "/d/target") << "inside";
  std::filesystem::create_symlink("d/target", data() + "/relative");
  std::filesystem::create_symlink(data() + "/d/target", data() + "/absolute");
  std::filesystem::create_symlink(outside.path() + "/file", data() + "/outfile");
  std::filesystem::create_symlink(outside.path() + "/folder", data() + "/outfolder");
  std::filesystem::create_symlink("nowhere", data() + "/dangling");
  std::filesystem::create_symlink("circle2", data() + "/circle1");
  std::filesystem::create_symlink("circle1", data() + "/circle2");
  const std::string volume = mountData();
  const ShellResult result = user->run("cd " + shellWord(volume) +
                                       " && readlink relative && cat relative && echo && cat absolute && "
                                       "echo && cat outfile && echo && cat outfolder/deep && echo"
                                       " && test -f outfile && test ! -L outfile && test -d outfolder && "
                                       "test -L dangling && readlink dangling && ls -l");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output.substr(0, result.output.find("total")),
            "d/target\ninside\ninside\noutside\ndeep outside\nnowhere\n");
  EXPECT_NE(user->run("cat " + shellWord(volume + "/dangling")).status, 0);
  EXPECT_NE(user->run("cat " + shellWord(volume + "/circle1")).status, 0);
  const ShellResult absolute = user->run("readlink " + shellWord(volume + "/absolute"));
  EXPECT_EQ(absolute.output, volume + "/d/target\n");
}

TEST_F(Reading, AFolderOfFiftyThousandEntriesIsListedWhole) {
  std::filesystem::create_directory(data() + "/many");
  for (int i = 0; i < 50000; ++i) {
    const int descriptor =
        open((data() + "/many/entry" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(descriptor, 0);
    close(descriptor);
  }
  const std::string volume = mountData();
  EXPECT_EQ(user->run("ls -U " + shellWord(volume + "/many") + " | wc -l").output, "50000\n");
  EXPECT_EQ(user->run("find " + shellWord(volume + "/many") + " -name 'entry49999' -size 0 | wc -l").output,
            "1\n");
}

TEST_F(Reading, AFileThatVanishedOnTheServerIsGoneAfterARefresh) {
  std::ofstream(data() + "/old") << "x";
  const std::string volume = mountData();
  ASSERT_EQ(user->run("ls " + shellWord(volume)).output, "old\n");
  std::filesystem::rename(data() + "/old", data() + "/new");
  EXPECT_EQ(user->ombra("refresh " + shellWord(volume)).status, 0);
  EXPECT_TRUE(eventually("test \"$(ls " + shellWord(volume) + ")\" = new"));
}

TEST_F(Reading, VolumeSizesAreTheServers) {
  const std::string volume = mountData();
  const ShellResult here = user->run("stat -f -c '%S %b' " + shellWord(volume));
  const ShellResult there = shell("stat -f -c '%S %b' " + shellWord(data()));
  long long sizeHere = 0, blocksHere = 0, sizeThere = 0, blocksThere = 0;
  ASSERT_EQ(sscanf(here.output.c_str(), "%lld %lld", &sizeHere, &blocksHere), 2);
  ASSERT_EQ(sscanf(there.output.c_str(), "%lld %lld", &sizeThere, &blocksThere), 2);
  EXPECT_EQ(sizeHere * blocksHere / (1 << 20), sizeThere * blocksThere / (1 << 20));
}

}  // namespace
}  // namespace ombra
