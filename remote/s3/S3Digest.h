// Digests of what is sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/NSFileHandle.h"

struct evp_md_ctx_st;

namespace ombra {

// SHA-256 of what comes in pieces.
class S3SHA256 {
 public:
  S3SHA256();
  void add(std::span<const std::byte> piece);
  // Hexadecimal, of all pieces since the beginning or the last `finish`.
  std::string finish();

 private:
  struct Deleter {
    void operator()(evp_md_ctx_st* context) const;
  };
  void begin();

  const std::unique_ptr<evp_md_ctx_st, Deleter> iContext;
};

// Hexadecimal.
std::string s3SHA256(std::string_view bytes);
// Base64: the value of "Content-MD5", which some requests must have.
std::string s3MD5(std::string_view bytes);
// The tag, in quotes, of an object that is made of parts with these tags: the digest of the parts' digests,
// and how many they are. Absent where a part's tag is no MD5 digest, as with some ways to encrypt.
std::optional<std::string> s3TagOfParts(std::span<const std::string> tags);
// Hexadecimal, of a range of a file; absent when it cannot be read as far.
std::optional<std::string> s3SHA256OfFile(const NSFileHandle& file, FileExtent range);

}  // namespace ombra
