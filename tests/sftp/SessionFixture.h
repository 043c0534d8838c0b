// A session over a server in memory.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSFileHandle.h"
#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPSession.h"
#include "tests/sftp/MemoryServer.h"
#include "tests/sftp/PeerTransport.h"

namespace ombra::test {

// Keeps the transcript's lines. One thread.
class LineTranscript final : public SessionTranscript {
 public:
  bool isEnabled() const override { return enabled; }
  void append(std::string_view text, bool isOutgoing) override { lines.emplace_back(text, isOutgoing); }

  bool enabled = false;
  std::vector<std::pair<std::string, bool>> lines;
};

// A transfer that a test may cancel after some bytes.
class RecordingControl final : public TransferControl {
 public:
  void progress(uint64_t bytesReached) override { reached.push_back(bytesReached); }
  bool shouldCancel() const override { return cancelled || (!reached.empty() && reached.back() >= cancelAt); }
  bool mayReturnEarly() const override { return isEarly; }
  void newFileIsThere(const NSFileAttributes& attributes) override { newFile = attributes; }

  std::optional<NSFileAttributes> newFile;  // as the server has described it
  std::vector<uint64_t> reached;
  uint64_t cancelAt = UINT64_MAX;
  bool cancelled = false;
  bool isEarly = false;
};

// A local file without a name.
std::unique_ptr<NSFileHandle> makeLocalFile(NSFileHandle::Kind kind, std::string_view content = {});
std::string readLocalFile(const NSFileHandle& file);
// Bytes that differ from place to place.
std::string pattern(size_t length, unsigned seed = 1);

// The errors' codes, for EXPECTs. 0 for no error.
int64_t codeOf(const NSErrorRef& error);

// `session` is logged in to `server` once `logIn` was called; each test may change the server's habits
// before.
class SessionFixture : public ::testing::Test {
 protected:
  void logIn(size_t cut = SIZE_MAX);
  void TearDown() override;

  MemoryServer server;
  std::chrono::milliseconds idleLimit{2000};
  std::shared_ptr<LineTranscript> transcript = std::make_shared<LineTranscript>();
  PeerTransport* peer = nullptr;  // owned by the session
  std::unique_ptr<SFTPSession> session;
  RecordingControl control;
  NSErrorRef error;
};

}  // namespace ombra::test
