// What a session works with, for tests of engines.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/Session.h"

namespace ombra {

// Keeps the transcript's text, "> " before each line that was sent and "< " before each that came.
// Thread-safe.
class KeptTranscript final : public SessionTranscript {
 public:
  bool isEnabled() const override { return true; }
  void append(std::string_view text, bool isOutgoing) override {
    MutexLock lock(iLock);
    for (const char c : text) {
      if (iText.empty() || iText.back() == '\n') iText += isOutgoing ? "> " : "< ";
      iText += c;
    }
  }
  std::string text() const {
    MutexLock lock(iLock);
    return iText;
  }
  void clear() {
    MutexLock lock(iLock);
    iText.clear();
  }

 private:
  mutable Mutex iLock;
  std::string iText GUARDED_BY(iLock);
};

// A transfer that a test may cancel, at once or when so many bytes were reached.
class KeptControl final : public TransferControl {
 public:
  void progress(uint64_t bytesReached) override { reached.push_back(bytesReached); }
  bool shouldCancel() const override {
    return cancelled.load() || (!reached.empty() && reached.back() >= cancelAt);
  }

  std::vector<uint64_t> reached;
  uint64_t cancelAt = UINT64_MAX;
  std::atomic<bool> cancelled{false};
};

}  // namespace ombra
