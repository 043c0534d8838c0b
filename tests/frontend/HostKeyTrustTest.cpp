#include "frontend/HostKeyTrust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

using testing::HasSubstr;

const SSHHostKey kKey{"ssh-ed25519", "SHA256:shown", "AAAA"};

class HostKeyTrust : public testing::Test {
 protected:
  HostKeyServices services() {
    return {[this](const SSHServerAddress&) { return iKnown; },
            [this](const SSHServerAddress&, NSErrorRef* error) {
              ++iProbes;
              if (!iProbe) storeError(error, iProbeError);
              return iProbe;
            },
            [this](const SSHServerAddress&, const SSHHostKey& key, NSErrorRef* error) {
              if (!iCanRemember) storeError(error, NSError::errorWithDomain(NSPOSIXErrorDomain, kEACCES));
              if (iCanRemember) iRemembered.push_back(key.fingerprint);
              return iCanRemember;
            }};
  }

  std::optional<HostKeyDecision> decide() {
    return decideHostKeyTrust({"nas", 2222, "anna"}, iPolicy, services(), &iFailure);
  }

  void showKey(SSHHostKeyStatus status) {
    iProbe.emplace();
    iProbe->status = status;
    iProbe->key = kKey;
    iProbe->knownHostsName = "[nas]:2222";
    if (status == SSHHostKeyStatus::kChanged || status == SSHHostKeyStatus::kRevoked) {
      iProbe->conflict =
          SSHKnownHostEntry{{"ssh-ed25519", "SHA256:old", "BBBB"}, "/home/anna/.ssh/known_hosts", 17, false};
    }
  }

  void answer(std::optional<std::string> text) {
    iPolicy.ask = [this, text](const std::string& question) {
      iQuestion = question;
      return text;
    };
  }

  std::string iKnown;
  std::optional<SSHHostKeyProbe> iProbe;
  NSErrorRef iProbeError;
  bool iCanRemember = true;
  HostKeyPolicy iPolicy;
  Failure iFailure;
  int iProbes = 0;
  std::vector<std::string> iRemembered;
  std::string iQuestion;
};

TEST_F(HostKeyTrust, AKnownHostCostsNoConnection) {
  iKnown = "SHA256:one SHA256:two";
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:one SHA256:two");
  EXPECT_EQ(iProbes, 0);
}

TEST_F(HostKeyTrust, AnUnknownHostIsShownAndRememberedWhenAccepted) {
  showKey(SSHHostKeyStatus::kUnknown);
  answer("yes");
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_EQ(iRemembered, std::vector<std::string>{"SHA256:shown"});
  EXPECT_THAT(iQuestion, HasSubstr("SHA256:shown"));
  EXPECT_THAT(iQuestion, HasSubstr("nas:2222"));
  EXPECT_THAT(iQuestion, HasSubstr("ssh-ed25519"));
}

TEST_F(HostKeyTrust, TheFingerprintItselfIsAYes) {
  showKey(SSHHostKeyStatus::kUnknown);
  answer("SHA256:shown");
  EXPECT_TRUE(decide());
}

TEST_F(HostKeyTrust, EverythingElseIsANo) {
  showKey(SSHHostKeyStatus::kUnknown);
  for (const std::optional<std::string>& text :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("no"),
        std::optional<std::string>("SHA256:other"), std::optional<std::string>("yes please")}) {
    answer(text);
    EXPECT_FALSE(decide()) << text.value_or("(none)");
    EXPECT_EQ(iFailure.code, kExitHostKey);
  }
  EXPECT_TRUE(iRemembered.empty());
}

TEST_F(HostKeyTrust, WithNobodyToAskAnUnknownHostIsRefusedWithWhatToDo) {
  showKey(SSHHostKeyStatus::kUnknown);
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitHostKey);
  EXPECT_THAT(iFailure.text(), HasSubstr("--accept-new"));
  EXPECT_THAT(iFailure.text(), HasSubstr("SHA256:shown"));
}

TEST_F(HostKeyTrust, AcceptNewAsksNobody) {
  showKey(SSHHostKeyStatus::kUnknown);
  iPolicy.acceptNew = true;
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_EQ(iRemembered.size(), 1U);
}

TEST_F(HostKeyTrust, AChangedKeyIsRefusedWithFileAndLineWhateverTheOptions) {
  showKey(SSHHostKeyStatus::kChanged);
  iPolicy.acceptNew = true;
  answer("yes");
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitHostKey);
  EXPECT_THAT(iFailure.text(), HasSubstr("/home/anna/.ssh/known_hosts, line 17"));
  EXPECT_THAT(iFailure.text(), HasSubstr("ssh-keygen -R '[nas]:2222'"));
  EXPECT_TRUE(iRemembered.empty());
  EXPECT_EQ(iQuestion, "");
}

TEST_F(HostKeyTrust, ARevokedKeyIsRefused) {
  showKey(SSHHostKeyStatus::kRevoked);
  iPolicy.acceptNew = true;
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitHostKey);
  EXPECT_THAT(iFailure.text(), HasSubstr("revoked"));
}

TEST_F(HostKeyTrust, AKeyThatCannotBeRememberedIsTrustedThisOnce) {
  showKey(SSHHostKeyStatus::kUnknown);
  iPolicy.acceptNew = true;
  iCanRemember = false;
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_THAT(decision->remark, HasSubstr("could not be remembered"));
}

TEST_F(HostKeyTrust, ASecondLookSeesTheServerThoughItIsKnown) {
  iKnown = "SHA256:old";
  iPolicy.lookAgain = true;
  showKey(SSHHostKeyStatus::kChanged);
  EXPECT_FALSE(decide());
  EXPECT_EQ(iProbes, 1);
  showKey(SSHHostKeyStatus::kKnown);
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
}

TEST_F(HostKeyTrust, AnUnreachableServerIsAFailureOfItsOwn) {
  iProbeError = QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, "refused");
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitFailure);
  EXPECT_THAT(iFailure.text(), HasSubstr("Could not connect to “nas:2222”"));
}

}  // namespace
}  // namespace ombra
