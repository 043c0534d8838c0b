// Sessions of a real sshd on a free port of this machine, with a home folder of their own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "remote/Session.h"
#include "tests/sftp/SessionFixture.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra::test {

// HOME points into an empty folder while a test runs.
class SshTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts a server, with `extra` lines before its configuration; skips the test (fails it in CI) when that
  // is not possible here.
  void start(const std::vector<std::string>& extra = {});
  // Credentials for the server with the test's key.
  std::shared_ptr<KCCredentials> keyCredentials() const;
  std::shared_ptr<KCCredentials> bareCredentials() const;
  std::unique_ptr<Session> makeSession(std::shared_ptr<const KCCredentials> credentials, int port = 0);
  // Logs in; the error's code, 0 for success.
  int64_t logIn(std::shared_ptr<const KCCredentials> credentials);
  void writeHomeFile(const std::string& name, const std::string& content);
  // A second key that the server takes, encrypted with a passphrase; its file.
  std::string makeEncryptedKey(const std::string& passphrase) const;
  // A file that the server can read and write.
  std::string remoteFile(const std::string& name, const std::string& content) const;

  std::unique_ptr<SshdFixture> server;
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
