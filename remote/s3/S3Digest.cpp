#include "remote/s3/S3Digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <vector>

#include "remote/tls/DigestText.h"

namespace ombra {
namespace {

constexpr size_t kHashedPiece = 64 * 1024;

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

std::string s3MD5(std::string_view bytes) {
  std::array<unsigned char, 16> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr);
  return base64Text(digest);
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
