// Mounting over FTP, WebDAV and S3, with a helper that mounts nothing and servers that show certificates.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "frontend/KnownCertificates.h"
#include "frontend/SessionBus.h"
#include "remote/KCCredentials.h"
#include "remote/KCTypes.h"
#include "tests/frontend/CommandRunner.h"
#include "tests/frontend/PlainServer.h"
#include "tests/frontend/Surroundings.h"
#include "tests/support/ServerProcess.h"

namespace ombra {
namespace {

using testing::HasSubstr;
using testing::Not;

class ProtocolCommand : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove(KnownCertificates::ofThisUser().file()); }
  void TearDown() override {
    for (const std::string& address : SessionBus::answeringAddresses()) endHelpersOn(address);
  }

  std::vector<std::string> environment(const std::string& behaviour) const {
    std::vector<std::string> all = {"FAKE_HELPER=" + behaviour, "FAKE_HELPER_FOLDER=" + iFolder.path()};
    all.insert(all.end(), iVariables.begin(), iVariables.end());
    return all;
  }
  // "mount" with these arguments, without a terminal.
  CommandResult mount(std::vector<std::string> arguments, const std::string& behaviour = "mount") const {
    arguments.insert(arguments.begin(), "mount");
    return runCommand(arguments, environment(behaviour));
  }
  std::unique_ptr<RunningCommand> mountAtTerminal(std::vector<std::string> arguments,
                                                  const std::string& behaviour = "mount") const {
    arguments.insert(arguments.begin(), "mount");
    return std::make_unique<RunningCommand>(arguments, RunningCommand::Input::kTerminal,
                                            environment(behaviour));
  }
  // What the helper was given; null when none was started.
  std::shared_ptr<KCCredentials> given() const {
    const std::string bytes = readFile(iFolder / "credentials.bin");
    std::string reason;
    return KCCredentials::credentialsWithArchivedData(NSData(bytes.begin(), bytes.end()), &reason);
  }
  std::string helperName() const {
    const std::string lines = readFile(iFolder / "arguments.txt");
    const size_t start = lines.find("--name=");
    return start == std::string::npos ? "(none)"
                                      : lines.substr(start + 7, lines.find('\n', start) - start - 7);
  }
  std::string passwordFile(const std::string& content) const {
    writeFile(iFolder / "pw", content + "\n");
    return iFolder / "pw";
  }
  static std::string remembered() { return readFile(KnownCertificates::ofThisUser().file()); }

  TemporaryFolder iFolder;
  std::vector<std::string> iVariables;
};

TEST_F(ProtocolCommand, FTPWithoutAUserLogsInAnonymously) {
  const auto result = mount({"ftp://127.0.0.1:2121/pub"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const auto login = given();
  ASSERT_TRUE(login);
  EXPECT_EQ(login->protocol(), kProtocolFTP);
  EXPECT_EQ(login->address(), "127.0.0.1");
  EXPECT_EQ(login->port(), 2121);
  EXPECT_EQ(login->username(), "anonymous");
  EXPECT_TRUE(login->password());
  EXPECT_EQ(login->initialPath(), "/pub");
  EXPECT_EQ(login->option("fingerprint"), std::nullopt);
}

TEST_F(ProtocolCommand, WebDAVWithoutAUserHasNoLoginAtAll) {
  ASSERT_EQ(mount({"http://127.0.0.1/dav"}).exitCode, 0);
  const auto login = given();
  ASSERT_TRUE(login);
  EXPECT_EQ(login->protocol(), kProtocolWebDAV);
  EXPECT_EQ(login->username(), std::nullopt);
  EXPECT_EQ(login->password(), std::nullopt);
}

TEST_F(ProtocolCommand, APasswordFileWithoutAUserMeansTheUserOfThisMachine) {
  ASSERT_EQ(mount({"ftp://127.0.0.1", "--password-file", passwordFile("secret")}).exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_NE(given()->username(), "anonymous");
  EXPECT_EQ(given()->password(), "secret");
}

TEST_F(ProtocolCommand, AUserIsAskedForThePassword) {
  const PlainServer server([](int) {});
  auto command = mountAtTerminal({fmt::format("dav://anna@127.0.0.1:{}/dav", server.port())});
  ASSERT_TRUE(command->waitForTerminal("Password of “anna@127.0.0.1”")) << command->terminal();
  command->type("secret\n");
  EXPECT_EQ(command->finish().exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->username(), "anna");
  EXPECT_EQ(given()->password(), "secret");
}

TEST_F(ProtocolCommand, NoPasswordIsAskedForWhereNobodyListens) {
  const std::string port = std::to_string(ServerProcess::freePort());
  for (const std::string& url : {"dav://anna@127.0.0.1:" + port, "ftp://anna@127.0.0.1:" + port}) {
    auto command = mountAtTerminal({url});
    const auto result = command->finish();
    EXPECT_EQ(result.exitCode, 1) << url;
    EXPECT_THAT(result.err, HasSubstr("Could not connect to “127.0.0.1:" + port + "”")) << url;
    EXPECT_THAT(command->terminal(), Not(HasSubstr("Password"))) << url;
    EXPECT_FALSE(given()) << url;
  }
  auto command = mountAtTerminal({"s3://KEY@bucket", "--endpoint", "http://127.0.0.1:" + port});
  EXPECT_THAT(command->finish().err, HasSubstr("Could not connect"));
  EXPECT_THAT(command->terminal(), Not(HasSubstr("Password")));
}

// Only the proxy knows the way.
TEST_F(ProtocolCommand, APasswordIsAskedForWhereAProxyLeadsToTheServer) {
  iVariables.push_back("http_proxy=http://127.0.0.1:1");
  auto command = mountAtTerminal({fmt::format("dav://anna@127.0.0.1:{}/dav", ServerProcess::freePort())});
  ASSERT_TRUE(command->waitForTerminal("Password of")) << command->terminal();
  command->type("secret\n");
  EXPECT_EQ(command->finish().exitCode, 0);
}

TEST_F(ProtocolCommand, ARefusedAnonymousLoginAsksForNameAndPassword) {
  auto command = mountAtTerminal({"ftp://127.0.0.1"}, "login-refused");
  ASSERT_TRUE(command->waitForTerminal("User name at “127.0.0.1”")) << command->terminal();
  command->type("anna\n");
  ASSERT_TRUE(command->waitForTerminal("Password of “anna@127.0.0.1”")) << command->terminal();
  command->type("right\n");
  EXPECT_EQ(command->finish().exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->username(), "anna");
}

TEST_F(ProtocolCommand, ARefusedLoginSaysWhatToDo) {
  const auto result = mount({"ftp://127.0.0.1"}, "login-refused");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.err, HasSubstr("--password-file"));
  EXPECT_THAT(result.err, Not(HasSubstr("--identity")));
}

TEST_F(ProtocolCommand, WarnsBeforeAPasswordTravelsReadable) {
  const std::string file = passwordFile("secret");
  EXPECT_THAT(mount({"ftp://anna@nas.test", "--password-file", file}).err, HasSubstr("ftpes://"));
  EXPECT_THAT(mount({"http://anna@nas.test", "--password-file", file}).err, HasSubstr("davs://"));
  EXPECT_EQ(mount({"ftp://anna@127.0.0.1", "--password-file", file}).err, "") << "it does not travel";
}

TEST_F(ProtocolCommand, AnEncodingTravelsAndTheStartFolderInIt) {
  ASSERT_EQ(mount({"ftp://127.0.0.1/b%C3%BCcher", "--encoding", "ISO-8859-1"}).exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->encoding(), "ISO-8859-1");
  EXPECT_EQ(given()->initialPath(),
            "/b\xFC"
            "cher");
}

TEST_F(ProtocolCommand, AnEncodingMustBeKnown) {
  const auto result = mount({"ftp://127.0.0.1", "--encoding", "KLINGON-1"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.err, HasSubstr("KLINGON-1"));
}

struct StrayOption {
  std::vector<std::string> arguments;
  const char* option;
};

TEST_F(ProtocolCommand, AnOptionThatHasNoMeaningForTheURLIsRefused) {
  const StrayOption table[] = {
      {{"ftp://nas.test", "--identity", "/k"}, "--identity"},
      {{"https://nas.test", "--region", "x"}, "--region"},
      {{"sftp://nas.test", "--endpoint", "http://x"}, "--endpoint"},
      {{"ftp://nas.test", "--path-style"}, "--path-style"},
      {{"file:///etc", "--profile", "x"}, "--profile"},
      {{"ftp://nas.test", "--anonymous"}, "--anonymous"},
      {{"file:///etc", "--save"}, "--save"},
      {{"s3://bucket", "--encoding", "ISO-8859-1"}, "--encoding"},
      {{"davs://nas.test", "--encoding", "ISO-8859-1"}, "--encoding"},
      {{"sftp://nas.test", "--streaming"}, "--streaming"},
  };
  for (const StrayOption& row : table) {
    const auto result = mount(row.arguments);
    EXPECT_EQ(result.exitCode, 2) << row.option;
    EXPECT_THAT(result.err, HasSubstr(std::string(row.option) + " has no meaning for"));
  }
}

TEST_F(ProtocolCommand, ALocalFolderCanBeWrittenInStreams) {
  ASSERT_EQ(mount({"file://" + iFolder.path(), "--streaming"}).exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->option("inPlace"), "0");
}

// A server whose certificate nobody vouches for, over each protocol with TLS.
class UnknownCertificate : public ProtocolCommand, public testing::WithParamInterface<const char*> {
 protected:
  static void serve(int socket, const TestCertificate& certificate) {
    if (std::string(GetParam()) == "ftpes") {
      sayTo(socket, "220 Hello\r\n");
      readLineOf(socket);
      sayTo(socket, "234 Go ahead\r\n");
    }
    serveTLS(socket, certificate);
  }
  std::vector<std::string> arguments(int port) const {
    const std::string server = "127.0.0.1:" + std::to_string(port);
    if (std::string(GetParam()) == "s3") return {"s3://KEY@bucket", "--endpoint", "https://" + server};
    return {GetParam() + std::string("://anna@") + server + "/folder"};
  }

  const TestCertificate iCertificate = makeLocalhostCertificate();
};

TEST_P(UnknownCertificate, IsShownAndItsFingerprintTravelsWhenAccepted) {
  const PlainServer server([this](int socket) { serve(socket, iCertificate); });
  auto command = mountAtTerminal(arguments(server.port()));
  ASSERT_TRUE(command->waitForTerminal("[yes/no]")) << command->terminal();
  EXPECT_THAT(command->terminal(), HasSubstr(iCertificate.fingerprint));
  EXPECT_THAT(command->terminal(), HasSubstr("CN=localhost"));
  EXPECT_THAT(command->terminal(), Not(HasSubstr("Password"))) << "trust comes first";
  command->type("yes\n");
  ASSERT_TRUE(command->waitForTerminal("Password of")) << command->terminal();
  command->type("secret\n");
  EXPECT_EQ(command->finish().exitCode, 0);
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->option("fingerprint"), iCertificate.fingerprint);
  EXPECT_EQ(given()->password(), "secret");
  EXPECT_EQ(remembered(),
            "[127.0.0.1]:" + std::to_string(server.port()) + " " + iCertificate.fingerprint + "\n");
}

TEST_P(UnknownCertificate, IsRefusedWithoutATerminalAndNoHelperIsStarted) {
  const PlainServer server([this](int socket) { serve(socket, iCertificate); });
  auto refused = arguments(server.port());
  refused.insert(refused.end(), {"--password-file", passwordFile("secret")});
  const auto result = mount(refused);
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_THAT(result.err, HasSubstr(iCertificate.fingerprint));
  EXPECT_THAT(result.err, HasSubstr("--accept-new"));
  EXPECT_FALSE(std::filesystem::exists(iFolder / "arguments.txt"));
}

TEST_P(UnknownCertificate, IsRememberedByAcceptNew) {
  const PlainServer server([this](int socket) { serve(socket, iCertificate); });
  auto accepting = arguments(server.port());
  accepting.insert(accepting.end(), {"--password-file", passwordFile("secret"), "--accept-new"});
  const auto result = mount(accepting);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr(iCertificate.fingerprint));
  EXPECT_THAT(remembered(), HasSubstr(iCertificate.fingerprint));
}

TEST_P(UnknownCertificate, IsRefusedWhenAnotherOneWasAcceptedBefore) {
  const PlainServer server([this](int socket) { serve(socket, iCertificate); });
  NSErrorRef error;
  ASSERT_TRUE(KnownCertificates::ofThisUser().remember("127.0.0.1", server.port(), "SHA256:old", &error));
  auto refused = arguments(server.port());
  refused.insert(refused.end(), {"--password-file", passwordFile("secret"), "--accept-new"});
  // The session notices it, and a second look tells what there is.
  const auto result = mount(refused, "untrusted");
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_THAT(result.err, HasSubstr("has changed"));
  EXPECT_THAT(result.err, HasSubstr("known_certificates, line 1"));
  EXPECT_THAT(result.err, HasSubstr(iCertificate.fingerprint));
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->option("fingerprint"), "SHA256:old");
}

INSTANTIATE_TEST_SUITE_P(Protocols, UnknownCertificate,
                         testing::Values("ftps", "ftpes", "davs", "https", "s3"),
                         [](const auto& protocol) { return std::string(protocol.param); });

// An authority of the tests vouches for the server.
class VouchedFor : public ProtocolCommand {
 protected:
  VouchedFor() {
    writeFile(iFolder / "authorities.pem", iAuthority.pem);
    iVariables.push_back("SSL_CERT_FILE=" + (iFolder / "authorities.pem"));
  }

  const TestCertificate iAuthority = makeTestCertificate(
      {.commonName = "Authority", .names = {}, .firstDay = -1, .lastDay = 30, .isAuthority = true});
  const TestCertificate iGood = makeLocalhostCertificate(&iAuthority);
  const PlainServer iServer{[this](int socket) { serveTLS(socket, iGood); }};
  const std::string iURL = "davs://127.0.0.1:" + std::to_string(iServer.port());
};

TEST_F(VouchedFor, ACertificateIsTakenWithoutAQuestionAndNoFingerprintTravels) {
  const auto result = mount({iURL});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->option("fingerprint").value_or(""), "");
  EXPECT_EQ(remembered(), "");
}

TEST_F(VouchedFor, ACertificateTakesThePlaceOfOneThatWasAcceptedBefore) {
  NSErrorRef error;
  ASSERT_TRUE(KnownCertificates::ofThisUser().remember("127.0.0.1", iServer.port(), "SHA256:old", &error));
  const auto result = mount({iURL}, "pinned");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(VouchedFor, ACertificateForAnotherHostIsAskedAbout) {
  const TestCertificate other = makeTestCertificate(
      {.commonName = "x", .names = {"DNS:other.test"}, .firstDay = -1, .lastDay = 30}, &iAuthority);
  const PlainServer server([&other](int socket) { serveTLS(socket, other); });
  const auto result = mount({"davs://127.0.0.1:" + std::to_string(server.port())});
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_THAT(result.err, HasSubstr("IP address mismatch"));
}

TEST_F(ProtocolCommand, ATLSServerThatCannotBeReachedIsNoQuestionOfTrust) {
  const auto result = mount({"davs://127.0.0.1:" + std::to_string(ServerProcess::freePort())});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("Could not connect"));
}

TEST_F(ProtocolCommand, AnFTPServerWithoutTLSIsNamed) {
  const PlainServer server([](int socket) {
    sayTo(socket, "220 Hello\r\n");
    readLineOf(socket);
    sayTo(socket, "502 What?\r\n");
  });
  const auto result = mount({"ftpes://127.0.0.1:" + std::to_string(server.port())});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("offers no TLS"));
}

TEST_F(ProtocolCommand, S3TakesKeyRegionAndEndpoint) {
  iVariables = {"AWS_ACCESS_KEY_ID=ENVKEY", "AWS_SECRET_ACCESS_KEY=envsecret", "AWS_SESSION_TOKEN=token",
                "AWS_REGION=eu-central-1"};
  const auto result = mount({"s3://photos/2024/june", "--endpoint", "http://127.0.0.1:9000", "--path-style"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const auto login = given();
  ASSERT_TRUE(login);
  EXPECT_EQ(login->protocol(), kProtocolS3);
  EXPECT_EQ(login->address(), "127.0.0.1");
  EXPECT_EQ(login->port(), 9000);
  EXPECT_EQ(login->username(), "ENVKEY");
  EXPECT_EQ(login->password(), "envsecret");
  EXPECT_EQ(login->initialPath(), "/photos/2024/june");
  EXPECT_EQ(login->option("endpoint"), "http://127.0.0.1:9000");
  EXPECT_EQ(login->option("region"), "eu-central-1");
  EXPECT_EQ(login->option("sessionToken"), "token");
  EXPECT_EQ(login->option("pathStyle"), "1");
  EXPECT_EQ(helperName(), "photos");
}

TEST_F(ProtocolCommand, S3OfAmazonNeedsNoLookAtTheServer) {
  const auto result = mount({"s3://KEY@photos", "--password-file", passwordFile("secret")});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const auto login = given();
  ASSERT_TRUE(login);
  EXPECT_EQ(login->address(), "s3.amazonaws.com");
  EXPECT_EQ(login->username(), "KEY");
  EXPECT_EQ(login->password(), "secret");
  EXPECT_EQ(login->initialPath(), "/photos");
  EXPECT_EQ(login->option("endpoint"), std::nullopt);
}

TEST_F(ProtocolCommand, S3WithoutABucketShowsThemAll) {
  for (const char* url : {"s3://", "s3:///", "s3://KEY:secret@/"}) {
    iVariables = {"AWS_ACCESS_KEY_ID=KEY", "AWS_SECRET_ACCESS_KEY=secret"};
    const auto result = mount({url, "--endpoint", "http://127.0.0.1:9000"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    ASSERT_TRUE(given());
    EXPECT_EQ(given()->initialPath(), "/");
  }
}

TEST_F(ProtocolCommand, S3WithoutAKeyOrWithoutItsSecretIsRefused) {
  EXPECT_EQ(mount({"s3://photos"}).exitCode, 4);
  const auto result = mount({"s3://KEY@photos"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.err, HasSubstr("secret"));
  EXPECT_FALSE(std::filesystem::exists(iFolder / "arguments.txt"));
}

TEST_F(ProtocolCommand, S3WithoutAKeyOnRequest) {
  iVariables = {"AWS_ACCESS_KEY_ID=ENVKEY", "AWS_SECRET_ACCESS_KEY=envsecret"};
  const auto result = mount({"s3://public", "--anonymous"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->username(), std::nullopt);
  EXPECT_EQ(given()->password(), std::nullopt);
  EXPECT_EQ(mount({"s3://KEY@public", "--anonymous"}).exitCode, 2);
  EXPECT_THAT(mount({"s3://public"}, "plain-failure").err, Not(HasSubstr("anonymous"))) << "there is a key";
  iVariables.clear();
  EXPECT_THAT(mount({"s3://public"}).err, HasSubstr("For a public bucket use --anonymous."));
}

TEST_F(ProtocolCommand, NoSecretStandsInTheArgumentsOfTheHelperOrTheProcessList) {
  RunningCommand command({"mount", "s3://KEY:hunter2@photos", "--endpoint", "http://127.0.0.1:9000",
                          "--foreground", "--name", "Disk"},
                         RunningCommand::Input::kNone, environment("mount"));
  ASSERT_TRUE(command.waitForOutput("fake-Disk"));
  EXPECT_THAT(readFile("/proc/" + std::to_string(command.pid()) + "/cmdline"), Not(HasSubstr("hunter2")));
  EXPECT_THAT(readFile(iFolder / "arguments.txt"), Not(HasSubstr("hunter2")));
  ASSERT_TRUE(given());
  EXPECT_EQ(given()->password(), "hunter2");
  kill(command.pid(), SIGINT);
  EXPECT_THAT(command.finish().err, Not(HasSubstr("hunter2")));
}

}  // namespace
}  // namespace ombra
