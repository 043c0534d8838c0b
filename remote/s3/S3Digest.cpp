#include "remote/s3/S3Digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <vector>

#include "remote/tls/DigestText.h"

namespace ombra {
namespace {

constexpr size_t kHashedPiece = 64 * 1024;
constexpr size_t kMD5Size = 16;

std::array<unsigned char, kMD5Size> md5(std::string_view bytes) {
  std::array<unsigned char, kMD5Size> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr);
  return digest;
}

// The bytes that the digits of a tag stand for, in quotes or without.
std::optional<std::string> md5OfTag(std::string_view tag) {
  if (tag.starts_with('"')) tag.remove_prefix(1);
  if (tag.ends_with('"')) tag.remove_suffix(1);
  if (tag.size() != 2 * kMD5Size) return std::nullopt;
  std::string digest;
  for (size_t at = 0; at < tag.size(); at += 2) {
    unsigned char byte = 0;
    const char* const end = tag.data() + at + 2;
    const auto result = std::from_chars(tag.data() + at, end, byte, 16);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    digest += static_cast<char>(byte);
  }
  return digest;
}

}  // namespace

void S3SHA256::Deleter::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

S3SHA256::S3SHA256() : iContext(EVP_MD_CTX_new()) { begin(); }

void S3SHA256::begin() { EVP_DigestInit_ex(iContext.get(), EVP_sha256(), nullptr); }

void S3SHA256::add(std::span<const std::byte> piece) {
  EVP_DigestUpdate(iContext.get(), piece.data(), piece.size());
}

std::string S3SHA256::finish() {
  std::array<unsigned char, 32> digest{};
  EVP_DigestFinal_ex(iContext.get(), digest.data(), nullptr);
  begin();
  return hexadecimalText(digest);
}

std::string s3SHA256(std::string_view bytes) {
  std::array<unsigned char, 32> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return hexadecimalText(digest);
}

std::string s3MD5(std::string_view bytes) { return base64Text(md5(bytes)); }

std::optional<std::string> s3TagOfParts(std::span<const std::string> tags) {
  std::string digests;
  for (const std::string& tag : tags) {
    const std::optional<std::string> digest = md5OfTag(tag);
    if (!digest) return std::nullopt;
    digests += *digest;
  }
  return "\"" + hexadecimalText(md5(digests)) + "-" + std::to_string(tags.size()) + "\"";
}

std::optional<std::string> s3SHA256OfFile(const NSFileHandle& file, FileExtent range) {
  S3SHA256 digest;
  std::vector<std::byte> buffer(
      static_cast<size_t>(std::min<uint64_t>(range.end - range.begin, kHashedPiece)));
  for (uint64_t at = range.begin; at < range.end;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(range.end - at, buffer.size()));
    const ssize_t count = file.readAt(buffer.data(), wanted, at);
    if (count <= 0) return std::nullopt;
    digest.add({buffer.data(), static_cast<size_t>(count)});
    at += static_cast<uint64_t>(count);
  }
  return digest.finish();
}

}  // namespace ombra
