#include "remote/PoolTranscript.h"

#include <algorithm>

#include "platform/foundation/NSUnarchiver.h"
#include "remote/TranscriptText.h"

namespace ombra {
namespace {
// Shorter ones would blacken every other word, and give themselves away by it.
constexpr size_t kShortestMaskedSecret = 4;
constexpr std::string_view kMask = "********";
}  // namespace

TranscriptSink::TranscriptSink(const KCCredentials& credentials) {
  if (const std::optional<std::string>& password = credentials.password()) addSecret(*password);
  const auto& options = credentials.options();
  for (const char* const key : {"passphrase", "sessionToken"}) {
    if (const auto secret = options.find(key); secret != options.end()) addSecret(secret->second);
  }
  const auto answers = options.find("keyboardInteractive");
  if (answers == options.end()) return;
  std::string_view rest = answers->second;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    addSecret(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

void TranscriptSink::addSecret(std::string_view secret) {
  if (secret.size() < kShortestMaskedSecret) return;
  iSecrets.emplace_back(secret);
  // What it looks like on a line, made in its place.
  std::string& visible = iSecrets.emplace_back();
  visible.reserve(4 * secret.size());
  for (const char character : secret) appendVisibly(character, &visible);
  if (visible != secret) return;
  wipe(visible);
  iSecrets.pop_back();
}

TranscriptSink::~TranscriptSink() {
  for (std::string& secret : iSecrets) wipe(secret);
}

void TranscriptSink::append(const KCUUID& uuid, std::string_view text, bool isOutgoing) {
  TranscriptDelegate* delegate = iDelegate.load();
  if (delegate == nullptr) return;
  const std::string shown = masked(text);
  for (size_t from = 0, end = 0; from < shown.size(); from = end) {
    end = std::min(shown.find('\n', from), shown.size() - 1) + 1;
    delegate->connectionUUID(uuid, std::string_view(shown).substr(from, end - from), isOutgoing);
  }
}

void TranscriptSink::flush(const KCUUID& uuid) {
  if (TranscriptDelegate* delegate = iDelegate.load()) delegate->connectionUUIDFlushTranscript(uuid);
}

std::string TranscriptSink::masked(std::string_view text) const {
  std::string result(text);
  for (const std::string& secret : iSecrets) {
    for (size_t at = result.find(secret); at != std::string::npos;
         at = result.find(secret, at + kMask.size())) {
      result.replace(at, secret.size(), kMask);
    }
  }
  return result;
}

void PoolTranscript::setConnection(const KCUUID& uuid) {
  MutexLock lock(iLock);
  iUUID = uuid;
}

void PoolTranscript::append(std::string_view text, bool isOutgoing) {
  KCUUID uuid;
  {
    MutexLock lock(iLock);
    uuid = iUUID;
  }
  iSink->append(uuid, text, isOutgoing);
}

void PoolTranscript::flush() {
  KCUUID uuid;
  {
    MutexLock lock(iLock);
    uuid = iUUID;
  }
  iSink->flush(uuid);
}

}  // namespace ombra
