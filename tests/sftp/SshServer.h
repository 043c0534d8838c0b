// A real sshd on a free port of this machine, with keys, accounts and a home folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "remote/Session.h"
#include "tests/sftp/ChildProcess.h"
#include "tests/sftp/SessionFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra::test {

// Starts when it is made, ends with everything it made. Needs root: sshd takes passwords and accounts from
// the system. `extra` lines go into its configuration, before the defaults of the tests.
class SshServer {
 public:
  explicit SshServer(const std::vector<std::string>& extra = {});
  ~SshServer();
  SshServer(const SshServer&) = delete;
  SshServer& operator=(const SshServer&) = delete;

  // Why it does not run; empty when it does.
  const std::string& problem() const { return iProblem; }
  int port() const { return iPort; }
  // A folder that is removed at the end, and what lies in it.
  const std::string& folder() const { return iFolder; }
  std::string keyFile() const { return iFolder + "/id"; }
  std::string encryptedKeyFile() const { return iFolder + "/id_encrypted"; }
  std::string hostKeyFile() const { return iFolder + "/host"; }
  static constexpr const char* kPassphrase = "open sesame";
  // "SHA256:…" as ssh-keygen prints it.
  std::string fingerprint() const;
  // What sshd has said so far, up to a line that holds `text`.
  std::string waitForLog(const std::string& text) { return iDaemon->waitForLine(text); }

 private:
  void writeConfiguration(const std::vector<std::string>& extra);
  bool makeKey(const std::string& file, const std::string& passphrase);

  std::string iFolder;
  std::string iProblem;
  int iPort = 0;
  std::unique_ptr<ChildProcess> iDaemon;
};

// HOME points into an empty folder while a test runs.
class SshTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts a server; skips the test (fails it in CI) when that is not possible here.
  void start(const std::vector<std::string>& extra = {});
  // Credentials for the server with the test's key.
  std::shared_ptr<KCCredentials> keyCredentials() const;
  std::shared_ptr<KCCredentials> bareCredentials() const;
  std::unique_ptr<Session> makeSession(std::shared_ptr<const KCCredentials> credentials, int port = 0);
  // Logs in; the error's code, 0 for success.
  int64_t logIn(std::shared_ptr<const KCCredentials> credentials);
  void writeHomeFile(const std::string& name, const std::string& content);
  // A file that the server can read and write.
  std::string remoteFile(const std::string& name, const std::string& content) const;

  std::unique_ptr<SshServer> server;
  std::string home;
  std::shared_ptr<LineTranscript> transcript = std::make_shared<LineTranscript>();
  std::vector<std::string> trustQuestions;
  bool trusts = true;
  std::chrono::milliseconds connectLimit{15000};
  std::chrono::milliseconds idleLimit{30000};
  std::unique_ptr<Session> session;
  RecordingControl control;
  NSErrorRef error;

 private:
  std::optional<std::string> iOldHome;
};

// Skips a test that cannot run here, or fails it where everything has to run.
#define OMBRA_SKIP_UNLESS(condition, reason)                            \
  do {                                                                  \
    if (!(condition)) {                                                 \
      const char* ci = std::getenv("CI");                               \
      if (ci != nullptr && std::string(ci) == "true") FAIL() << reason; \
      GTEST_SKIP() << reason;                                           \
    }                                                                   \
  } while (false)

}  // namespace ombra::test
