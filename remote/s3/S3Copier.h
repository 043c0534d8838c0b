// Copies that the server makes.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/s3/S3Client.h"
#include "remote/s3/S3Limits.h"

namespace ombra {

// One object and the place of its copy; keys as they are.
struct S3Copy {
  std::string fromBucket;
  std::string fromKey;
  std::string toBucket;
  std::string toKey;
  std::optional<uint64_t> size;  // when it is known
};

// Copies one object, in parts when it is too long for one request, with all that it has besides its content.
[[nodiscard]] bool s3CopyObject(S3Client& client, const S3Limits& limits, const S3Copy& copy,
                                NSErrorRef* error);

// Copies many objects, several at a time: the server is slow to answer each, and could do more at once. Made
// for one session, whose thread waits in `run`; `interrupt` may come from any thread.
class S3Copier {
 public:
  // `client` is one of the connections that are used; the others are made when there is work for them.
  S3Copier(S3Client& client, const S3Limits& limits) : iClient(client), iLimits(limits) {}
  S3Copier(const S3Copier&) = delete;
  S3Copier& operator=(const S3Copier&) = delete;

  // True when all were copied; else those that were are in `done`.
  [[nodiscard]] bool run(const std::vector<S3Copy>& copies, NSErrorRef* error) EXCLUDES(iLock);
  const std::vector<std::string>& done() const { return iDone; }
  // Ends what the other connections do; the session's own is interrupted by the session.
  void interrupt() EXCLUDES(iLock);

 private:
  void work(S3Client& client, const std::vector<S3Copy>& copies) EXCLUDES(iLock);
  void workElsewhere(const std::vector<S3Copy>& copies) EXCLUDES(iLock);

  S3Client& iClient;
  const S3Limits iLimits;
  std::atomic<size_t> iNext{0};
  std::atomic<bool> iStops{false};
  Mutex iLock;
  std::vector<S3Client*> iOthers GUARDED_BY(iLock);
  NSErrorRef iFailure GUARDED_BY(iLock);
  // Written by the workers under the lock, read when they are gone.
  std::vector<std::string> iDone;
};

}  // namespace ombra
