// Much at once: many files, large files.
#include <cstdlib>

#include "tests/integration/WritingFixture.h"

namespace ombra {
namespace {

// A sanitizer needs several times the memory of what it watches, so that nothing can be said of that.
#ifdef __has_feature
constexpr bool kIsInstrumented = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kIsInstrumented = false;
#endif

class WritingLarge : public Writing {
 protected:
  static constexpr const char* kWhenNightly =
      "Takes minutes: set OMBRA_NIGHTLY=1, or run scripts/test --nightly.";
  void expectLittleMemory(const std::string& after) {
    const long peak = peakMemory();
    EXPECT_GT(peak, 0);
    if (kIsInstrumented) return;
    EXPECT_LT(peak, 64 * 1024) << after;
  }
  static bool isNightly() { return std::getenv("OMBRA_NIGHTLY") != nullptr; }
  // The largest amount of memory that the helper has used, in KiB.
  long peakMemory() {
    const std::string status = "/proc/" + std::to_string(user->helperOf(volume)) + "/status";
    return std::stol("0" + shell("awk '/VmHWM/ {printf \"%d\", $2}' " + status).output);
  }
};

OMBRA_EVERY_VOLUME(WritingLarge);

TEST_P(WritingLarge, TwoThousandSmallFilesArriveAndGo) {
  runInBoth("for d in $(seq 20); do mkdir t$d; for f in $(seq 100); do echo $d $f > t$d/f$f; done; done");
  runInBoth("cat t7/* | md5sum && rm -r t1 t2 t3 && rm t4/f[1-5]* && mv t5 t6/t5 && find . | wc -l");
}

TEST_P(WritingLarge, ALargeFileArrivesWholeAndMemoryStaysSmall) {
  ASSERT_EQ(user->run("head -c 150M /dev/urandom > ~/big").status, 0);
  runInBoth("cp ~/big big");
  expectLittleMemory("the copy");
}

// Written front to back (in place, or as one stream); then patched, which a streaming server gets as a whole
// file; then lengthened, for which a stream begins again with all that was there.
TEST_P(WritingLarge, AGibibyteGoesOutInEachWayInLittleMemory) {
  if (!isNightly()) GTEST_SKIP() << kWhenNightly;
  ASSERT_EQ(user->run("head -c 1G /dev/urandom > ~/big").status, 0);
  for (const char* script :
       {"cp ~/big big", "printf patch | dd of=big bs=1 seek=500000000 conv=notrunc,fsync status=none",
        "printf more >> big"}) {
    const ShellResult written = user->run("cd " + shellWord(volume) + " && " + script, 600);
    EXPECT_EQ(written.status, 0) << script << "\n" << written.errors;
    EXPECT_EQ(user->run("cd " + shellWord(twin.path()) + " && " + script, 600).status, 0);
    EXPECT_EQ(shell("cmp " + shellWord(data() + "/big") + " " + shellWord(twin.path() + "/big")).output, "")
        << script;
    expectLittleMemory(script);
  }
}

TEST_P(WritingLarge, AFileOfFiveGibibytesArrivesWhole) {
  if (!isNightly()) GTEST_SKIP() << kWhenNightly;
  ASSERT_EQ(user->run("truncate -s 5G ~/huge && for i in 0 1000 2047 2048 4095 4096 5119; do head -c 1M"
                      " /dev/urandom | dd of=\"$HOME\"/huge bs=1M seek=$i conv=notrunc status=none; done")
                .status,
            0);
  const ShellResult copied = user->run("cp --sparse=always ~/huge " + shellWord(volume + "/huge"), 600);
  EXPECT_EQ(copied.status, 0) << copied.errors;
  const std::string source = shellWord(user->home() + "/huge");
  EXPECT_EQ(shell("cmp " + source + " " + shellWord(data() + "/huge"), {}, {}, 600).output, "");
  EXPECT_EQ(user->run("cmp " + source + " " + shellWord(volume + "/huge"), 600).output, "");
  expectLittleMemory("the copy and a look at it");
  EXPECT_EQ(user->run("rm " + shellWord(volume + "/huge")).status, 0);
}

}  // namespace
}  // namespace ombra
