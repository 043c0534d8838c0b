// The everyday changes: the server ends with the bytes that a local folder would have.
#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

OMBRA_EVERY_VOLUME(Writing);

TEST_P(Writing, FilesFoldersAndLinksAreMadeChangedMovedAndRemoved) {
  runInBoth("echo hello > a && cat a");
  runInBoth("mkdir d && cp a d/b && mv d/b d/c && mkdir -p x/y/z && mv x/y d/y");
  runInBoth("ln -s a link && readlink link");
  runInBoth("mv d/c a");
  runInBoth("rmdir d/y/z && rm link");
  runInBoth("rm -r d x");
  runInBoth("rmdir a");
  runInBoth("mkdir a");
}

TEST_P(Writing, AppendsLandAtTheEnd) {
  runInBoth("seq 1 1000 > f && seq 1 10 >> f && wc -c < f");
  runInBoth("echo more >> f && echo still more >> f && tail -2 f");
  runInBoth("dd if=/dev/zero of=f bs=1000 count=3 oflag=append conv=notrunc status=none && wc -c < f");
}

TEST_P(Writing, BlocksLandWhereTheyWereSoughtTo) {
  runInBoth("seq 1 30000 > f && printf XYZ | dd of=f bs=1 seek=100 conv=notrunc status=none");
  runInBoth("dd if=f of=g bs=4096 skip=3 seek=7 count=5 status=none");
  runInBoth("dd if=f of=g bs=4096 skip=1 seek=2 count=3 conv=notrunc status=none");
  runInBoth("printf end | dd of=f bs=1 seek=400000 conv=notrunc,fsync status=none");
  runInBoth("dd if=f of=g bs=777 seek=10 conv=notrunc status=none && md5sum g");
}

TEST_P(Writing, FilesTakeEveryLengthTheyAreGiven) {
  runInBoth("seq 1 1000 > f && truncate -s 50 f && cat f");
  runInBoth("truncate -s 5000 f && md5sum f");
  runInBoth("truncate -s +3 f && truncate -s 100000 new && truncate -s 0 f");
  runInBoth("echo x >> f && truncate -s 4097 f && echo y >> f && wc -c < f");
  runInBoth(": > new");
}

TEST_P(Writing, ModesAndDatesAreKept) {
  runInBoth("echo '#!/bin/sh' > tool && chmod 755 tool && chmod 640 tool && chmod 755 tool");
  runInBoth("echo 'echo hi' >> tool && ./tool");
  runInBoth("mkdir private && chmod 700 private && umask 077 && echo x > private/x && mkdir private/d");
  runInBoth("touch -d '2001-02-03 04:05:06' tool private && stat -c %Y tool private");
  EXPECT_EQ(shell("cd " + shellWord(data()) + " && stat -c %Y tool private").output,
            shell("cd " + shellWord(twin.path()) + " && stat -c %Y tool private").output);
}

TEST_P(Writing, WhatAServerCannotDoIsRefusedClearlyAndLeavesNothing) {
  const ShellResult reserved = user->run("fallocate -l 1M " + shellWord(volume + "/x"));
  EXPECT_NE(reserved.errors.find("not supported"), std::string::npos) << reserved.errors;
  EXPECT_EQ(user->run("rm " + shellWord(volume + "/x")).status, 0);
  runInBoth("echo a > a");
  EXPECT_NE(user->run("cd " + shellWord(volume) + " && fallocate -p -o 0 -l 1 a").status, 0);
  EXPECT_NE(user->run("cd " + shellWord(volume) + " && ln a b").status, 0);
  EXPECT_NE(user->run("cd " + shellWord(volume) + " && mkfifo pipe").status, 0);
  EXPECT_NE(user->run("cd " + shellWord(volume) + " && mknod device c 1 3").status, 0);
  expectEqual("the refusals");
}

}  // namespace
}  // namespace ombra
