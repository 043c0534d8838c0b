// Trace lines, logged errors, condition checks, hard failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <optional>
#include <thread>

#include "fshelper/OFSNumbers.h"
#include "fshelper/OFSTracing.h"
#include "platform/foundation/Gestalt.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUserDefaults.h"
#include "remote/KCTypes.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr uint32_t kSelector = 0x4B446267;  // 'KDbg'

class Tracing : public ::testing::Test {
 protected:
  void SetUp() override { forget(); }
  void TearDown() override {
    gTracingEnabled = false;
    forget();
  }
  void forget() {
    NSUserDefaults::standardUserDefaults().setVolatileObject({}, "DebugLogging");
    DeleteGestaltValue(kSelector);
    ofs_forgetDebugLogging();
  }
  void setDebugLogging(bool enabled) {
    DeleteGestaltValue(kSelector);
    ofs_forgetDebugLogging();
    NewGestaltValue(kSelector, enabled ? 1 : 0);
  }
  LogRecord log;
};

void inner(const std::string& path) { OFS_TRACE("-[OmbraFileSystem inner:]", "{}", path); }

void outer(const std::string& path) {
  OFS_TRACE("-[OmbraFileSystem contentsOfDirectoryAtPath:error:]", "{}", path);
  inner("/b");
}

TEST_F(Tracing, EnterAndLeaveLinesHoldTheSignatureAndTheDescription) {
  gTracingEnabled = true;
  inner("/a");
  EXPECT_THAT(log.lines(), ElementsAre("{ -[OmbraFileSystem inner:] /a", "} -[OmbraFileSystem inner:] /a"));
}

TEST_F(Tracing, ANestedCallIsIndentedByOneBlank) {
  gTracingEnabled = true;
  outer("/a");
  EXPECT_THAT(log.lines(), ElementsAre("{ -[OmbraFileSystem contentsOfDirectoryAtPath:error:] /a",
                                       " { -[OmbraFileSystem inner:] /b", " } -[OmbraFileSystem inner:] /b",
                                       "} -[OmbraFileSystem contentsOfDirectoryAtPath:error:] /a"));
}

TEST_F(Tracing, NestedCallsThatFollowOneAnotherAreIndentedAlike) {
  gTracingEnabled = true;
  {
    OFS_TRACE("-[A b]", "{}", "outside");
    inner("/b");
    inner("/c");
  }
  EXPECT_THAT(log.lines(), ElementsAre("{ -[A b] outside", " { -[OmbraFileSystem inner:] /b",
                                       " } -[OmbraFileSystem inner:] /b", " { -[OmbraFileSystem inner:] /c",
                                       " } -[OmbraFileSystem inner:] /c", "} -[A b] outside"));
}

TEST_F(Tracing, TheCallAfterANestedOneIsBackAtItsLevel) {
  gTracingEnabled = true;
  outer("/a");
  log.clear();
  inner("/c");
  EXPECT_THAT(log.lines(), ElementsAre("{ -[OmbraFileSystem inner:] /c", "} -[OmbraFileSystem inner:] /c"));
}

TEST_F(Tracing, AFreshThreadStartsAtLevelZeroInsideATracedCall) {
  gTracingEnabled = true;
  OFS_TRACE("-[A b]", "{}", "outside");
  log.clear();
  std::thread([] { inner("/t"); }).join();
  EXPECT_THAT(log.lines(), ElementsAre("{ -[OmbraFileSystem inner:] /t", "} -[OmbraFileSystem inner:] /t"));
}

TEST_F(Tracing, AnExceptionLeavesTheLevelAsItWas) {
  gTracingEnabled = true;
  const auto failing = [] {
    OFS_TRACE("-[A fails]", "{}", "x");
    OFS_RAISE("-[A fails]", "no");
  };
  EXPECT_THROW(failing(), KCException);
  log.clear();
  inner("/a");
  EXPECT_EQ(log.lines().front(), "{ -[OmbraFileSystem inner:] /a");
}

TEST_F(Tracing, WithTracingOffNothingIsWrittenAndNoDescriptionIsMade) {
  bool described = false;
  {
    const OFSTrace trace("-[A b]", [&described] {
      described = true;
      return std::string();
    });
  }
  EXPECT_FALSE(described);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, ACallEnteredBeforeTracingWasSwitchedOnWritesNoLeaveLine) {
  {
    OFS_TRACE("-[A b]", "{}", "x");
    gTracingEnabled = true;
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, AMessageNamesTheSourceFileAndItsLine) {
  gTracingEnabled = true;
  const int line = __LINE__ + 1;
  OFS_TRACE_MESSAGE("lockPath={}", "/tmp/x");
  EXPECT_THAT(log.lines(), ElementsAre("TracingTests.cpp:" + std::to_string(line) + ": lockPath=/tmp/x"));
}

TEST_F(Tracing, AMessageIsSilentWithTracingOff) {
  OFS_TRACE_MESSAGE("lockPath={}", "/tmp/x");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, TheSourceNameIsTheLastComponent) {
  EXPECT_EQ(ofs_sourceName("fshelper/OFSTracing.cpp"), "OFSTracing.cpp");
  EXPECT_EQ(ofs_sourceName("OFSTracing.cpp"), "OFSTracing.cpp");
}

TEST_F(Tracing, AnAbsentPathIsDescribedAsNull) {
  EXPECT_EQ(ofs_describe(std::nullopt), "(null)");
  EXPECT_EQ(ofs_describe("/a"), "/a");
}

const NSErrorRef& someError() {
  static const NSErrorRef sError = NSError::errorWithDomain(NSPOSIXErrorDomain, kENOENT);
  return sError;
}

TEST_F(Tracing, AnErrorIsNotLoggedWithBothSwitchesOff) {
  setDebugLogging(false);
  OFS_REPORT_ERROR(someError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, AnErrorIsLoggedBareWithDebugLogging) {
  setDebugLogging(true);
  OFS_REPORT_ERROR(someError());
  EXPECT_THAT(log.lines(), ElementsAre(someError()->description()));
}

TEST_F(Tracing, AnErrorIsLoggedWithItsPlaceWhenTracing) {
  setDebugLogging(false);
  gTracingEnabled = true;
  const int line = __LINE__ + 1;
  OFS_REPORT_ERROR(someError());
  EXPECT_THAT(log.lines(),
              ElementsAre("TracingTests.cpp:" + std::to_string(line) + ": " + someError()->description()));
}

TEST_F(Tracing, AnErrorIsLoggedTwiceWithBothSwitchesOn) {
  setDebugLogging(true);
  gTracingEnabled = true;
  OFS_REPORT_ERROR(someError());
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines().front(), someError()->description());
}

TEST_F(Tracing, AnAbsentErrorIsLoggedAsNull) {
  setDebugLogging(true);
  OFS_REPORT_ERROR(NSErrorRef());
  EXPECT_THAT(log.lines(), ElementsAre("(null)"));
}

TEST_F(Tracing, AFailedConditionIsLoggedAndTheCallerGoesOn) {
  OFS_CONDITION(1 + 1 == 3, "node not an alias");
  EXPECT_THAT(log.lines(), ElementsAre("CONDITION FAILED: node not an alias"));
}

TEST_F(Tracing, AConditionThatHoldsIsSilent) {
  OFS_CONDITION(1 + 1 == 2, "node not an alias");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, AHardFailureRaisesTheReasonWithFileFunctionAndLine) {
  try {
    ofs_raise("fshelper/OFSRemoteFile.cpp", "-[OFSRemoteFile openWithMode:error:]", 17,
              "open failed, errno = 2 (No)");
    FAIL() << "nothing was raised";
  } catch (const KCException& exception) {
    EXPECT_EQ(exception.reason(),
              "open failed, errno = 2 (No)\n\nfile:fshelper/OFSRemoteFile.cpp\n"
              "function:-[OFSRemoteFile openWithMode:error:]\nline:17");
    EXPECT_EQ(KCException::name(), "KCException");
  }
}

TEST_F(Tracing, TheMacroRaisesFromItsOwnPlace) {
  const int line = __LINE__ + 2;
  try {
    OFS_RAISE("-[A b]", "fchmod failed, errno = {} ({})", 1, "x");
  } catch (const KCException& exception) {
    EXPECT_THAT(
        exception.reason(),
        MatchesRegex("fchmod failed, errno = 1 \\(x\\)\n\nfile:.*tests/fshelper/controller/TracingTests.cpp\n"
                     "function:-\\[A b\\]\nline:" +
                     std::to_string(line)));
  }
}

TEST_F(Tracing, DebugLoggingIsTakenFromTheRegistryWhereItIsDecided) {
  NSUserDefaults::standardUserDefaults().setVolatileObject(false, "DebugLogging");
  NewGestaltValue(kSelector, 1);
  EXPECT_TRUE(KCDebugLoggingIsEnabled());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, DebugLoggingThatTheRegistryHasOffIsNotSwitchedOnByTheDefault) {
  NSUserDefaults::standardUserDefaults().setVolatileObject(true, "DebugLogging");
  NewGestaltValue(kSelector, 0);
  EXPECT_FALSE(KCDebugLoggingIsEnabled());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, ARegistryThatKnowsNothingAnswersItsOwnNumber) {
  int32_t registered = 7;
  EXPECT_EQ(Gestalt(kSelector, &registered), -5551);
  EXPECT_EQ(registered, 7);
}

TEST_F(Tracing, DebugLoggingIsTakenFromTheDefaultAndRegisteredOtherwise) {
  NSUserDefaults::standardUserDefaults().setVolatileObject(true, "DebugLogging");
  EXPECT_TRUE(KCDebugLoggingIsEnabled());
  int32_t registered = 0;
  EXPECT_EQ(Gestalt(kSelector, &registered), 0);
  EXPECT_EQ(registered, 1);
  EXPECT_THAT(log.lines(), ElementsAre("DEBUG LOGGING IS ON"));
}

TEST_F(Tracing, DebugLoggingThatIsOffIsRegisteredSilently) {
  EXPECT_FALSE(KCDebugLoggingIsEnabled());
  int32_t registered = 7;
  EXPECT_EQ(Gestalt(kSelector, &registered), 0);
  EXPECT_EQ(registered, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tracing, DebugLoggingIsDecidedOnce) {
  EXPECT_FALSE(KCDebugLoggingIsEnabled());
  NSUserDefaults::standardUserDefaults().setVolatileObject(true, "DebugLogging");
  DeleteGestaltValue(kSelector);
  EXPECT_FALSE(KCDebugLoggingIsEnabled());
}

TEST(Numbers, AnOffsetComesBackFromItsNumber) {
  EXPECT_EQ(ofs_offsetValue(ofs_numberWithOffset(INT64_MIN)), INT64_MIN);
  EXPECT_EQ(ofs_offsetValue(ofs_numberWithOffset(5'000'000'000)), 5'000'000'000);
}

TEST(Numbers, OtherValuesAsOffsets) {
  EXPECT_EQ(ofs_offsetValue(PropertyValue(2.9)), 2);
  EXPECT_EQ(ofs_offsetValue(PropertyValue(1e300)), INT64_MAX);
  EXPECT_EQ(ofs_offsetValue(PropertyValue(-1e300)), INT64_MIN);
  EXPECT_EQ(ofs_offsetValue(PropertyValue(true)), 1);
  EXPECT_EQ(ofs_offsetValue(PropertyValue("12")), 0);
}

TEST(Numbers, AReferenceKeepsAllItsBits) {
  const auto reference = ~uintptr_t{0} - 15;
  EXPECT_EQ(static_cast<uintptr_t>(ofs_offsetValue(ofs_numberWithPointer(reference))), reference);
}

TEST(Numbers, ATextIsRepeated) {
  EXPECT_EQ(ofs_times(" ", 3), "   ");
  EXPECT_EQ(ofs_times("ab", 2), "abab");
  EXPECT_EQ(ofs_times("ab", 0), "");
}

}  // namespace
}  // namespace ombra
