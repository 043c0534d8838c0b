#include "frontend/CertificateTrust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "remote/KCTypes.h"
#include "remote/QuarnKitError.h"
#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using testing::HasSubstr;
using testing::Not;

class CertificateTrust : public testing::Test {
 protected:
  std::optional<CertificateDecision> decide() {
    const CertificateServices services{[this](const TLSServerAddress&, NSErrorRef* error) {
                                         ++iProbes;
                                         if (!iShown) storeError(error, iProbeError);
                                         return iShown;
                                       },
                                       KnownCertificates(iFile)};
    return decideCertificateTrust({"Files.test", 990, kProtocolFTPImplicitTLS}, iPolicy, services, &iFailure);
  }

  void show(const std::string& problem) {
    iShown = ServerCertificate{"SHA256:shown",
                               "CN=files.test",
                               "CN=Home Authority",
                               {"files.test", "nas"},
                               "2024-05-14 09:30 UTC",
                               "2025-05-14 09:30 UTC",
                               problem};
  }

  void answer(std::optional<std::string> text) {
    iPolicy.ask = [this, text](const std::string& question) {
      iQuestion = question;
      return text;
    };
  }

  std::string remembered() const { return readFile(iFile); }

  TemporaryFolder iFolder;
  const std::string iFile = iFolder / "config/known_certificates";
  std::optional<ServerCertificate> iShown;
  NSErrorRef iProbeError;
  HostKeyPolicy iPolicy;
  Failure iFailure;
  int iProbes = 0;
  std::string iQuestion;
};

TEST_F(CertificateTrust, WhatTheAuthoritiesVouchForNeedsNoQuestionAndNoFingerprint) {
  show("");
  answer("no");
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "");
  EXPECT_EQ(decision->remark, "");
  EXPECT_EQ(iQuestion, "");
  EXPECT_EQ(access(iFile.c_str(), F_OK), -1) << "nothing is remembered";
}

TEST_F(CertificateTrust, AnUnknownOneIsShownWholeAndRememberedWhenAccepted) {
  show("self-signed certificate");
  answer("yes");
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_EQ(remembered(), "[files.test]:990 SHA256:shown\n");
  for (const char* part :
       {"Files.test:990", "self-signed certificate", "CN=files.test", "files.test, nas", "CN=Home Authority",
        "2024-05-14 09:30 UTC to 2025-05-14 09:30 UTC", "SHA256:shown"})
    EXPECT_THAT(iQuestion, HasSubstr(part));
}

TEST_F(CertificateTrust, OneThatWasAcceptedBeforeCostsNoConnection) {
  show("self-signed certificate");
  answer("SHA256:shown");
  ASSERT_TRUE(decide());
  iProbes = 0;
  iPolicy.ask = {};
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_EQ(iProbes, 0);
}

TEST_F(CertificateTrust, SeveralAcceptedOnesAllCount) {
  show("self-signed certificate");
  NSErrorRef error;
  ASSERT_TRUE(KnownCertificates(iFile).remember("files.test", 990, "SHA256:one", &error));
  ASSERT_TRUE(KnownCertificates(iFile).remember("files.test", 990, "SHA256:two", &error));
  ASSERT_TRUE(decide());
  EXPECT_EQ(decide()->fingerprints, "SHA256:one SHA256:two");
}

TEST_F(CertificateTrust, EverythingButYesAndTheFingerprintIsANo) {
  show("self-signed certificate");
  for (const std::optional<std::string>& text :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("no"),
        std::optional<std::string>("SHA256:other"), std::optional<std::string>("yes please")}) {
    answer(text);
    EXPECT_FALSE(decide()) << text.value_or("(none)");
    EXPECT_EQ(iFailure.code, kExitHostKey);
  }
  EXPECT_EQ(access(iFile.c_str(), F_OK), -1);
}

TEST_F(CertificateTrust, WithNobodyToAskItIsRefusedWithAllThatIsKnownAndWhatToDo) {
  show("unable to get local issuer certificate");
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitHostKey);
  for (const char* part : {"Files.test:990", "nable to get local issuer certificate", "CN=files.test",
                           "CN=Home Authority", "2025-05-14", "SHA256:shown", "--accept-new"})
    EXPECT_THAT(iFailure.text(), HasSubstr(part));
}

TEST_F(CertificateTrust, AcceptNewAsksNobodyAndTellsWhatItRemembered) {
  show("self-signed certificate");
  iPolicy.acceptNew = true;
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_THAT(decision->remark, HasSubstr("SHA256:shown"));
  EXPECT_EQ(remembered(), "[files.test]:990 SHA256:shown\n");
}

TEST_F(CertificateTrust, AChangedOneIsRefusedWithTheLineToLookAtWhateverTheOptions) {
  mkdir((iFolder / "config").c_str(), 0700);
  writeFile(iFile, "# accepted by hand\n[nas]:990 SHA256:shown\n[files.test]:990 SHA256:old\n");
  show("self-signed certificate");
  iPolicy.acceptNew = true;
  iPolicy.lookAgain = true;
  answer("yes");
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitHostKey);
  EXPECT_THAT(iFailure.text(), HasSubstr("has changed"));
  EXPECT_THAT(iFailure.text(), HasSubstr(iFile + ", line 3"));
  EXPECT_THAT(iFailure.text(), HasSubstr("SHA256:shown"));
  EXPECT_EQ(iQuestion, "");
  EXPECT_THAT(remembered(), Not(HasSubstr("[files.test]:990 SHA256:shown")));
}

TEST_F(CertificateTrust, ASecondLookFindsAnAcceptedOneAndOneThatAuthoritiesVouchForByNow) {
  mkdir((iFolder / "config").c_str(), 0700);
  writeFile(iFile, "[files.test]:990 SHA256:old\n[files.test]:990 SHA256:shown\n");
  iPolicy.lookAgain = true;
  show("self-signed certificate");
  ASSERT_TRUE(decide());
  EXPECT_EQ(decide()->fingerprints, "SHA256:shown");
  writeFile(iFile, "[files.test]:990 SHA256:old\n");
  show("");
  ASSERT_TRUE(decide());
  EXPECT_EQ(decide()->fingerprints, "");
}

TEST_F(CertificateTrust, OneThatCannotBeRememberedIsTrustedThisOnce) {
  writeFile(iFolder / "config", "a file where the folder should be");
  show("self-signed certificate");
  iPolicy.acceptNew = true;
  const auto decision = decide();
  ASSERT_TRUE(decision);
  EXPECT_EQ(decision->fingerprints, "SHA256:shown");
  EXPECT_THAT(decision->remark, HasSubstr("could not be remembered"));
}

TEST_F(CertificateTrust, AnUnreachableServerIsAFailureOfItsOwn) {
  iProbeError = QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, "refused");
  EXPECT_FALSE(decide());
  EXPECT_EQ(iFailure.code, kExitFailure);
  EXPECT_THAT(iFailure.text(), HasSubstr("Could not connect to “Files.test:990”"));
}

TEST_F(CertificateTrust, WordsOfACertificateCannotMoveTheCursor) {
  show("self-signed certificate");
  iShown->subject = "CN=\x1b[2Jgone";
  iShown->names = {"a\nb"};
  answer("no");
  EXPECT_FALSE(decide());
  EXPECT_THAT(iQuestion, Not(HasSubstr("\x1b")));
  EXPECT_THAT(iQuestion, Not(HasSubstr("a\nb")));
  EXPECT_THAT(iFailure.text(), Not(HasSubstr("\x1b")));
}

TEST(KnownCertificates, AreFoundByHostAndPort) {
  const TemporaryFolder folder;
  const KnownCertificates known(folder / "known");
  writeFile(
      known.file(),
      "# [a]:1 SHA256:comment\n\n[a]:1 SHA256:one and words\n[A]:1 SHA256:upper\n[a]:2 SHA256:two\n[a]:1\n" +
          std::string(5000, 'x') + "\n  [::1]:443   SHA256:three  ");
  ASSERT_EQ(known.entries("A", 1).size(), 1U) << "names stand there in lower case";
  EXPECT_EQ(known.entries("A", 1)[0].fingerprint, "SHA256:one");
  EXPECT_EQ(known.entries("A", 1)[0].line, 3);
  ASSERT_EQ(known.entries("::1", 443).size(), 1U);
  EXPECT_EQ(known.entries("::1", 443)[0].line, 8);
  EXPECT_TRUE(known.entries("a", 3).empty());
  EXPECT_TRUE(known.entries("b", 1).empty());
}

TEST(KnownCertificates, AreAddedToAFileThatOthersCannotRead) {
  const TemporaryFolder folder;
  const KnownCertificates known(folder / "new/folder/known");
  NSErrorRef error;
  ASSERT_TRUE(known.remember("NAS", 443, "SHA256:one", &error));
  struct stat status {};
  ASSERT_EQ(stat(known.file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(known.entries("nas", 443).size(), 1U);
}

TEST(KnownCertificates, ALastLineWithoutItsEndDoesNotSwallowTheNext) {
  const TemporaryFolder folder;
  const KnownCertificates known(folder / "known");
  writeFile(known.file(), "[a]:1 SHA256:one");
  NSErrorRef error;
  ASSERT_TRUE(known.remember("b", 2, "SHA256:two", &error));
  EXPECT_EQ(readFile(known.file()), "[a]:1 SHA256:one\n[b]:2 SHA256:two\n");
}

}  // namespace
}  // namespace ombra
