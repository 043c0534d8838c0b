// Logins over every protocol, and what the user is told when they fail.
#include <filesystem>
#include <fstream>
#include <regex>

#include "tests/integration/ProtocolFixture.h"

namespace ombra {
namespace {

using ProtocolLogins = ProtocolTest;

TEST_P(ProtocolLogins, AWrongPasswordIsSaidAndLeavesNothing) {
  unmount();
  std::ofstream(user->home() + "/password") << "wrong-one\n";
  const ShellResult refused = user->ombra("mount " + arguments(folder));
  EXPECT_EQ(refused.status, 4) << refused.errors;
  EXPECT_NE(refused.errors.find("was refused"), std::string::npos) << refused.errors;
  EXPECT_EQ(refused.errors.find("wrong-one"), std::string::npos) << refused.errors;
  EXPECT_EQ(user->ombra("list").output.find(volumeName()), std::string::npos);
  EXPECT_FALSE(isMounted("/Volumes/" + volumeName()));
}

TEST_P(ProtocolLogins, AFolderThatDoesNotExistIsSaid) {
  const ShellResult refused = user->ombra("mount " + arguments(folder + "/not/there/at all"));
  EXPECT_EQ(refused.status, 3) << refused.errors;
  EXPECT_NE(refused.errors.find("at all"), std::string::npos) << refused.errors;
}

TEST_P(ProtocolLogins, AFolderThatDoesNotExistIsNotReplacedByTheOneAboveIt) {
  const ShellResult refused = user->ombra("mount " + arguments(folder + "/not there"));
  EXPECT_EQ(refused.status, 3) << refused.errors;
  EXPECT_NE(refused.errors.find("not there"), std::string::npos) << refused.errors;
}

TEST_P(ProtocolLogins, AFileInTheURLMountsItsFolder) {
  unmount();
  server().putFile(folder + "/a file", "content");
  volume = user->mount(arguments(folder + "/a file"));
  EXPECT_EQ(user->run("cat " + shellWord(volume + "/a file")).output, "content");
}

TEST_P(ProtocolLogins, TheTranscriptShowsTheConversationWithoutSecrets) {
  const std::string file = shellWord(volume + "/file");
  ASSERT_EQ(user->run("echo text > " + file + " && cat " + file).status, 0);
  const auto login = server().credentials();
  const std::string secret = login->password().value_or("");
  const std::string both = login->username().value_or("") + ":" + secret;
  const std::string encoded = user->run("printf %s " + shellWord(both) + " | base64 -w 0").output;
  ASSERT_NE(encoded, "");
  unmount();
  const std::string text =
      user->run("cat " + shellWord(user->home() + "/state/ombrafs/OmbraFSHelperLogs") + "/*").output;
  EXPECT_NE(text.find("/file"), std::string::npos) << text;
  EXPECT_EQ(text.find(secret), std::string::npos);
  EXPECT_EQ(text.find(encoded), std::string::npos);
  // Nor what could be played back, or tried against a list of passwords.
  for (const char* pattern :
       {"Authorization: [^*]", "Signature=[0-9a-f]", "PASS [^*]", "response=\"[0-9a-f]"})
    EXPECT_FALSE(std::regex_search(text, std::regex(pattern))) << pattern;
}

INSTANTIATE_TEST_SUITE_P(Servers, ProtocolLogins,
                         ::testing::Values(kWebDAVKind, kWebDAVOverTLSKind, kPoorFTPKind, kExplicitFTPKind,
                                           kResumingFTPKind, kImplicitFTPKind, kS3Kind),
                         nameOfProtocolServer);

// Over TLS with a certificate that no authority vouches for.
class ProtocolTrust : public ProtocolTest {
 protected:
  std::string withoutAccepting() const { return url(folder) + otherArguments(); }
  std::string knownFile() const { return user->home() + "/config/ombrafs/known_certificates"; }
};

TEST_P(ProtocolTrust, AnUnknownCertificateIsRefusedWithoutATerminal) {
  unmount();
  std::filesystem::remove(knownFile());
  const ShellResult refused = user->ombra("mount " + withoutAccepting());
  EXPECT_EQ(refused.status, 5) << refused.errors;
  EXPECT_NE(refused.errors.find("SHA256:"), std::string::npos) << refused.errors;
  EXPECT_NE(refused.errors.find("--accept-new"), std::string::npos) << refused.errors;
}

TEST_P(ProtocolTrust, AnAcceptedCertificateIsTakenFromThenOn) {
  unmount();
  const std::string again = user->mount(withoutAccepting());
  EXPECT_TRUE(isMounted(again));
}

TEST_P(ProtocolTrust, AChangedCertificateIsRefusedWithTheLineToLookAt) {
  unmount();
  ASSERT_EQ(user->run("sed -i 's/SHA256:.*/SHA256:another/' " + shellWord(knownFile())).status, 0);
  for (const std::string& arguments : {withoutAccepting(), "--accept-new " + withoutAccepting()}) {
    const ShellResult refused = user->ombra("mount " + arguments);
    EXPECT_EQ(refused.status, 5) << refused.errors;
    EXPECT_NE(refused.errors.find("has changed"), std::string::npos) << refused.errors;
    EXPECT_NE(refused.errors.find("known_certificates, line 1"), std::string::npos) << refused.errors;
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, ProtocolTrust,
                         ::testing::Values(kWebDAVOverTLSKind, kExplicitFTPKind, kImplicitFTPKind),
                         nameOfProtocolServer);

// What only S3 has.
class Buckets : public ProtocolTest {
 protected:
  std::string bucketArguments(const std::string& bucket) const {
    const auto login = server().credentials();
    return "s3://" + login->username().value_or("") + "@" + bucket + " --endpoint " +
           login->option("endpoint").value_or("") + otherArguments();
  }
};

TEST_P(Buckets, AllAreShownWhereNoneIsNamed) {
  unmount();
  server().putFile(folder + "/file", "content");
  volume = user->mount(bucketArguments("/"));
  EXPECT_EQ(user->run("ls " + shellWord(volume)).output, "test\n");
  EXPECT_EQ(user->run("cat " + shellWord(volume + folder + "/file")).output, "content");
}

TEST_P(Buckets, TheKeyMayComeFromTheEnvironmentOrAProfile) {
  unmount();
  const auto login = server().credentials();
  user->environment()["AWS_ACCESS_KEY_ID"] = login->username().value_or("");
  user->environment()["AWS_SECRET_ACCESS_KEY"] = login->password().value_or("");
  user->environment()["AWS_ENDPOINT_URL_S3"] = login->option("endpoint").value_or("");
  const std::string byEnvironment = user->mount("s3://test --name " + volumeName());
  EXPECT_TRUE(isMounted(byEnvironment));
  EXPECT_EQ(user->ombra("unmount " + shellWord(byEnvironment)).status, 0);
  for (const char* name : {"AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY", "AWS_ENDPOINT_URL_S3"})
    user->environment()[name] = "";
  std::filesystem::create_directory(user->home() + "/.aws");
  std::ofstream(user->home() + "/.aws/credentials")
      << "[nas]\naws_access_key_id = " << login->username().value_or("")
      << "\naws_secret_access_key = " << login->password().value_or("") << "\n";
  std::ofstream(user->home() + "/.aws/config")
      << "[profile nas]\nendpoint_url = " << login->option("endpoint").value_or("") << "\n";
  EXPECT_TRUE(isMounted(user->mount("s3://test --profile nas --name " + volumeName())));
}

INSTANTIATE_TEST_SUITE_P(Servers, Buckets, ::testing::Values(kS3Kind), nameOfProtocolServer);

}  // namespace
}  // namespace ombra
