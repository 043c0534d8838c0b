#include "frontend/UnmountVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ombra {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

// A volume that behaves as the test says. Each pause moves its time on by a second.
class ScriptedVolume final : public VolumeControl {
 public:
  bool answers = true;         // to the request over the bus
  int pausesUntilUnmount = 1;  // after the request or detaching, the mount goes after so many pauses
  int pausesUntilEnd = 2;      // and the helper ends after so many
  bool obeysTerminate = true;
  bool inUse = false;
  bool abortNeeded = false;  // detaching fails until requests are aborted
  bool helperStaysForEver = false;
  bool mountStaysForEver = false;
  std::string holders;
  int interruptAfter = -1;
  int pausesOfSending = 0;  // in each of so many pauses after the request bytes reach the server
  int pausesOfSaving = 0;   // and in each of so many a copy grows

  std::vector<std::string> steps;
  bool mounted = true;
  bool helper = true;

  bool isMounted() override { return mounted; }
  bool helperLives() override { return helper; }
  bool askHelper(bool force, std::string* why) override {
    steps.push_back(force ? "ask-force" : "ask");
    if (!answers) *why = "no answer";
    iLeaving = answers;
    return answers;
  }
  bool detach(bool lazily, std::string* why, bool* busy) override {
    steps.push_back(lazily ? "detach-lazily" : "detach");
    const bool fails = (inUse && !lazily) || (abortNeeded && !iAborted);
    if (fails) {
      *why = "Device or resource busy";
      *busy = inUse;
      return false;
    }
    mounted = false;
    iLeaving = true;
    return true;
  }
  void abortRequests() override {
    steps.emplace_back("abort");
    iAborted = true;
  }
  void terminateHelper() override {
    steps.emplace_back("terminate");
    if (obeysTerminate) helper = false;
  }
  void killHelper() override {
    steps.emplace_back("kill");
    helper = false;
  }
  void removeMountPoint() override { steps.emplace_back("remove"); }
  std::string users() override { return holders; }
  bool pause() override {
    iTime += std::chrono::seconds(1);
    ++iPauses;
    if (iLeaving && pausesOfSending-- > 0) ++iSent;
    if (iLeaving && pausesOfSaving-- > 0) ++iSaved;
    if (iLeaving && !mountStaysForEver && --pausesUntilUnmount <= 0) mounted = false;
    if (iLeaving && !helperStaysForEver && --pausesUntilEnd <= 0) helper = false;
    return iPauses != interruptAfter;
  }
  uint64_t bytesSent() override { return iSent; }
  uint64_t bytesSaved() override { return iSaved; }
  std::chrono::steady_clock::time_point now() override { return iTime; }

 private:
  std::chrono::steady_clock::time_point iTime{};
  int iPauses = 0;
  uint64_t iSent = 0;
  uint64_t iSaved = 0;
  bool iLeaving = false;
  bool iAborted = false;
};

class UnmountVolume : public testing::Test {
 protected:
  bool unmount(bool force = false) {
    return unmountVolume(iVolume, "nas", force, {milliseconds(20000), milliseconds(5000), milliseconds(3000)},
                         &iFailure);
  }
  ScriptedVolume iVolume;
  Failure iFailure;
};

TEST_F(UnmountVolume, AsksTheHelperAndWaitsUntilBothAreGone) {
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "remove"));
  EXPECT_FALSE(iVolume.helper);
}

TEST_F(UnmountVolume, WaitsAsLongAsTheHelperIsWritingBack) {
  iVolume.pausesUntilEnd = 18;
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "remove"));
}

TEST_F(UnmountVolume, OverASlowLineWaitsBeyondItsLimitAsLongAsBytesMove) {
  iVolume.pausesUntilEnd = 300;
  iVolume.pausesOfSending = 295;
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "remove"));
}

TEST_F(UnmountVolume, ThatStopsSendingIsWaitedForNoLongerThanTheLimit) {
  iVolume.pausesUntilEnd = 300;
  iVolume.pausesOfSending = 100;
  iVolume.obeysTerminate = false;
  EXPECT_FALSE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "terminate"));
}

TEST_F(UnmountVolume, OfOneThatIsInUseDoesNothingAndSaysWhoHoldsIt) {
  iVolume.holders = "vim (123)";
  EXPECT_FALSE(unmount());
  EXPECT_TRUE(iVolume.steps.empty());
  EXPECT_EQ(iFailure.code, kExitInUse);
  EXPECT_THAT(iFailure.text(), HasSubstr("vim (123)"));
}

TEST_F(UnmountVolume, WithoutAnAnswerTakesTheMountAwayAndLetsTheHelperFinish) {
  iVolume.answers = false;
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "detach", "remove"));
}

TEST_F(UnmountVolume, OfOneThatIsBusyLeavesItAsItIs) {
  iVolume.answers = false;
  iVolume.inUse = true;
  EXPECT_FALSE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "detach"));
  EXPECT_EQ(iFailure.code, kExitInUse);
  EXPECT_TRUE(iVolume.mounted && iVolume.helper);
}

TEST_F(UnmountVolume, TellsAHelperToEndThatOutlivesItsMount) {
  iVolume.helperStaysForEver = true;
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "terminate", "remove"));
}

TEST_F(UnmountVolume, NeverKillsAHelperThatMayStillBeWriting) {
  iVolume.helperStaysForEver = true;
  iVolume.obeysTerminate = false;
  EXPECT_FALSE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "terminate"));
  EXPECT_EQ(iFailure.code, kExitFailure);
  EXPECT_THAT(iFailure.text(), HasSubstr("--force"));
  EXPECT_TRUE(iVolume.helper);
}

TEST_F(UnmountVolume, ThatIsInterruptedLeavesTheRestToTheHelper) {
  iVolume.pausesUntilEnd = 100;
  iVolume.interruptAfter = 3;
  EXPECT_FALSE(unmount());
  EXPECT_EQ(iFailure.code, kExitInterrupted);
  EXPECT_THAT(iVolume.steps, ElementsAre("ask"));
}

TEST_F(UnmountVolume, OfAMountWithoutAHelperDetachesIt) {
  iVolume.answers = false;
  iVolume.helper = false;
  EXPECT_TRUE(unmount());
  EXPECT_THAT(iVolume.steps, ElementsAre("ask", "detach", "remove"));
}

TEST_F(UnmountVolume, ByForceGivesTheHelperAShortTimeFirst) {
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps, ElementsAre("ask-force", "remove"));
}

TEST_F(UnmountVolume, ByForceLetsTheHelperSaveItsCopiesToTheEnd) {
  iVolume.pausesUntilEnd = 100;
  iVolume.pausesOfSaving = 98;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps, ElementsAre("ask-force", "remove"));
}

TEST_F(UnmountVolume, ByForceDoesNotWaitForWhatIsStillBeingSent) {
  iVolume.pausesUntilEnd = 100;
  iVolume.pausesOfSending = 98;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps, ElementsAre("ask-force", "terminate", "remove"));
}

TEST_F(UnmountVolume, ByForceDoesNotMindWhoHoldsIt) {
  iVolume.holders = "vim (123)";
  iVolume.inUse = true;
  iVolume.answers = false;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps, ElementsAre("ask-force", "detach-lazily", "terminate", "remove"));
}

TEST_F(UnmountVolume, ByForceKillsAHelperThatHangs) {
  iVolume.answers = false;
  iVolume.helperStaysForEver = true;
  iVolume.obeysTerminate = false;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps,
              ElementsAre("ask-force", "detach-lazily", "terminate", "abort", "kill", "remove"));
}

TEST_F(UnmountVolume, ByForceAbortsTheRequestsOfAMountThatWillNotGo) {
  iVolume.answers = false;
  iVolume.abortNeeded = true;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps,
              ElementsAre("ask-force", "detach-lazily", "abort", "detach-lazily", "terminate", "remove"));
}

TEST_F(UnmountVolume, ByForceTakesAwayAVolumeWhoseHelperAgreedButHangs) {
  iVolume.mountStaysForEver = true;
  iVolume.helperStaysForEver = true;
  EXPECT_TRUE(unmount(true));
  EXPECT_THAT(iVolume.steps, ElementsAre("ask-force", "detach-lazily", "terminate", "remove"));
}

}  // namespace
}  // namespace ombra
