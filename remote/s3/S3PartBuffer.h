// The part of a stream that is being gathered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "remote/http/HTTPClient.h"
#include "remote/s3/S3Digest.h"

namespace ombra {

// A server wants to know the length of a part before its first byte, so that a part is gathered before it is
// sent: a short one in memory, a longer one in an unlinked temporary file, so that it does not matter for
// memory how many are under way. Used again and again for one stream.
class S3PartBuffer {
 public:
  using Next = std::function<size_t(std::byte*, size_t)>;
  static constexpr uint64_t kMemory = uint64_t{512} << 10;
  enum class Hashing { kWanted, kNotWanted };
  // Parts longer than `memory` bytes go to a file.
  explicit S3PartBuffer(Hashing hashing, uint64_t memory = kMemory);
  S3PartBuffer(const S3PartBuffer&) = delete;
  S3PartBuffer& operator=(const S3PartBuffer&) = delete;

  void clear();
  // Takes from `next` until it holds `size` bytes; `mayGoOn` is asked before each piece, and ends it when
  // false. False with the error when there is no place for them.
  [[nodiscard]] bool fill(const Next& next, uint64_t size, const std::function<bool()>& mayGoOn,
                          NSErrorRef* error);
  uint64_t length() const { return iLength; }
  // The stream came to its end in this part.
  bool isLast() const { return iIsLast; }

  // The content as the body of a request, which may be sent several times. Valid until the next `fill` or
  // `clear`.
  HTTPBody body();
  // Hexadecimal SHA-256 of the content, made while it came; empty where hashing is not wanted. Nothing is
  // added from then on.
  const std::string& hash();

 private:
  bool take(const Next& next, uint64_t most, NSErrorRef* error);
  bool moveToFile(NSErrorRef* error);
  size_t give(std::byte* buffer, size_t capacity);

  const uint64_t iMostMemory;
  std::vector<std::byte> iMemory;       // the content, or a piece of it on its way to the file
  std::unique_ptr<NSFileHandle> iFile;  // in use instead, once a part is too long
  uint64_t iLength = 0;
  uint64_t iGiven = 0;
  bool iIsLast = false;
  std::optional<S3SHA256> iDigest;  // absent where hashing is not wanted
  std::string iHash;
};

}  // namespace ombra
