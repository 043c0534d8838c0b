// Real programs write whole trees to a volume.
#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

// A source on this machine with a bit of everything that programs copy.
class WritingPrograms : public Writing {
 protected:
  void SetUp() override {
    Writing::SetUp();
    if (HasFatalFailure()) return;
    const ShellResult made = user->run(
        "cd && mkdir -p src/sub/deep src/empty && cd src"
        " && for i in $(seq 30); do echo $i > f$i; done && head -c 300000 /dev/urandom > sub/blob && : > "
        "nothing"
        " && ln -s ../f1 sub/link && ln -s nowhere sub/dangling && ln -s sub/deep folder && echo x > "
        "sub/deep/x"
        " && truncate -s 200000 sub/sparse && chmod 755 f1 && chmod 600 f2 && chmod 700 sub/deep"
        " && find . ! -type d -exec touch -h -d '2001-02-03 04:05:06' {} + && touch -d '2002-03-04' sub "
        "empty");
    ASSERT_EQ(made.status, 0) << made.errors;
  }
  // Dates too, which the comparison of all tests leaves out.
  void expectEqualDates(const std::string& folder) {
    const std::string list = " && find " + folder + " -type f -printf '%Ts %p\\n' | sort";
    const std::string expected = shell("cd " + shellWord(twin.path()) + list).output;
    EXPECT_NE(expected.find("981173106 "), std::string::npos) << expected;
    EXPECT_EQ(shell("cd " + shellWord(data()) + list).output, expected);
    EXPECT_EQ(user->run("cd " + shellWord(volume) + list).output, expected);
  }
};

OMBRA_EVERY_VOLUME(WritingPrograms);

TEST_P(WritingPrograms, CpCopiesATreeWithEverythingItHas) {
  runInBoth("cp -a ~/src copy");
  expectEqualDates("copy");
  runInBoth("cp -a copy again && cp -p ~/src/f3 single && cp -r --preserve=timestamps copy/sub third");
  expectEqualDates("again single third");
}

TEST_P(WritingPrograms, RsyncMakesACopyAndThenHasNothingToDo) {
  const std::string rsync = "rsync -a --delete ~/src/ copy";
  runInBoth(rsync);
  expectEqualDates("copy");
  const std::string again =
      rsync + " --stats | grep -E 'files transferred|files: .*(created|deleted)|^Total trans'";
  const ShellResult second = user->run("cd " + shellWord(volume) + " && " + again);
  EXPECT_NE(second.output.find("Number of regular files transferred: 0\n"), std::string::npos)
      << second.output;
  EXPECT_NE(second.output.find("Total transferred file size: 0 bytes\n"), std::string::npos) << second.output;
  // Nothing else to do either; only the dates of links are kept nowhere.
  runInBoth(rsync + " -i --omit-link-times");
  runInBoth("rm -r ~/src/sub ~/src/f[1-5] 2>/dev/null; echo changed > ~/src/f9; " + rsync);
}

TEST_P(WritingPrograms, RsyncChangesFilesInPlaceAndResumes) {
  runInBoth("rsync -a ~/src/ copy");
  ASSERT_EQ(
      user->run("printf middle | dd of=\"$HOME\"/src/sub/blob bs=1 seek=150000 conv=notrunc status=none")
          .status,
      0);
  runInBoth("rsync -a --inplace --no-whole-file ~/src/ copy && md5sum copy/sub/blob");
  runInBoth(
      "head -c 100000 ~/src/sub/blob > copy/sub/blob && rsync -a --append ~/src/ copy && md5sum "
      "copy/sub/blob");
}

TEST_P(WritingPrograms, TarUnpacksAndPacks) {
  ASSERT_EQ(user->run("cd && tar czf a.tar.gz src").status, 0);
  runInBoth("tar xzf ~/a.tar.gz");
  expectEqualDates("src");
  runInBoth("tar cf packed.tar --sort=name -C ~ src && tar tf packed.tar | wc -l && tar df packed.tar -C ~");
}

TEST_P(WritingPrograms, UnzipUnpacksAndZipPacks) {
  // unzip writes a link's target to a file first and reads it back, for which it waits until the stream ends.
  const std::string without = isSFTP() ? "" : " -x src/folder src/sub/link src/sub/dangling";
  ASSERT_EQ(user->run("cd && zip -qry a.zip src" + without).status, 0);
  runInBoth("unzip -q ~/a.zip");
  expectEqualDates("src");
  // zip makes a temporary file beside the archive and moves it over it.
  runInBoth("zip -qrX packed.zip src && zip -qX packed.zip src/f1 && unzip -tq packed.zip");
}

TEST_P(WritingPrograms, GitClonesCommitsAndCollectsGarbage) {
  ASSERT_EQ(user->run("cd ~/src && git init -q -b main && git add . && git commit -qm one").status, 0);
  const std::string clone =
      "git clone -q ~/src clone && cd clone && echo more > more && git add . && git commit -qm two"
      " && git rm -q f1 && git commit -qm three && git checkout -q -b side HEAD~1 && git checkout -q main"
      " && git gc -q && git fsck --strict 2>&1 && git status --porcelain && git log --format=%H --all";
  const ShellResult here = user->run("cd " + shellWord(volume) + " && " + clone, 300);
  const ShellResult there = user->run("cd " + shellWord(twin.path()) + " && " + clone, 300);
  EXPECT_EQ(here.status, 0) << here.errors;
  EXPECT_EQ(here.output, there.output);
  const std::string look =
      " && git -c safe.directory='*' fsck --strict 2>&1 && git -c safe.directory='*' status --porcelain"
      " && ls -A && git -c safe.directory='*' count-objects";
  EXPECT_EQ(shell("cd " + shellWord(data() + "/clone") + look).output,
            shell("cd " + shellWord(twin.path() + "/clone") + look).output);
  // The index holds the dates and numbers of the files, so the two can never be the same.
  runInBoth("rm -r clone");
}

TEST_P(WritingPrograms, ADatabaseSurvivesEachWayOfKeepingAJournal) {
  std::vector<std::string> journals = {"delete", "truncate"};
  std::string rollback;
  // These read the journal back while it is written, which takes seconds as a stream.
  if (isSFTP()) {
    journals.push_back("persist");
    rollback = "begin; update t set b = 1; rollback; select count(*) from t where b = 1; ";
  }
  for (const std::string& journal : journals) {
    const std::string file = journal + ".db";
    const std::string sqlite = "sqlite3 " + file + " 'pragma journal_mode=" + journal + "; ";
    // What stays of the journal holds a number made at random.
    runInBoth(
        sqlite +
        "create table t(a, b); begin; insert into t select value, hex(value) from generate_series(1, 2000);"
        " commit; delete from t where a % 2; select count(*) from t;' && " +
        sqlite + rollback + "vacuum; pragma integrity_check; select sum(a) from t;' && rm -f " + file +
        "-journal");
  }
}

TEST_P(WritingPrograms, SedEditsInPlace) {
  runInBoth("seq 1 5000 > f && sed -i 's/1/one/' f && md5sum f");
  runInBoth("sed -i.bak 's/2/two/' f && md5sum f f.bak");
  runInBoth("perl -pi -e 's/3/three/' f && sort -o f f && head -3 f");
}

TEST_P(WritingPrograms, EditorsSaveInTheirThreeWays) {
  runInBoth("echo first > doc && echo second > .doc.tmp && mv .doc.tmp doc && cat doc");
  runInBoth("cp -p doc doc~ && echo third > doc && cat doc doc~");
  runInBoth("mv doc doc.bak && echo fourth > doc && rm doc.bak && cat doc");
  runInBoth("echo fifth > doc.new && sync doc.new && ln -sf doc current && mv doc.new doc && cat current");
}

TEST_P(WritingPrograms, AnEditorKeepsItsBackupEitherWay) {
  for (const std::string copy : {"yes", "no"}) {
    runInBoth("seq 1 3000 > doc && chmod 640 doc && ex -u NONE -s -c 'set backup backupskip= backupcopy=" +
              copy + "' -c '%s/1/one/g' -c 'wq' doc && md5sum doc doc~ && rm doc~");
    // Without one to keep it makes one all the same until the file is safe.
    runInBoth("ex -u NONE -s -c 'set nobackup writebackup backupskip= fsync backupcopy=" + copy +
              "' -c '1,100d' -c 'wq' doc");
  }
}

}  // namespace
}  // namespace ombra
