#include "remote/s3/S3Digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "remote/tls/DigestText.h"

namespace ombra {
namespace {

constexpr size_t kHashedPiece = 64 * 1024;

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

}  // namespace

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
  const std::unique_ptr<EVP_MD_CTX, ContextDeleter> context(EVP_MD_CTX_new());
  EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
  std::vector<std::byte> buffer(
      static_cast<size_t>(std::min<uint64_t>(range.end - range.begin, kHashedPiece)));
  for (uint64_t at = range.begin; at < range.end;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(range.end - at, buffer.size()));
    const ssize_t count = file.readAt(buffer.data(), wanted, at);
    if (count <= 0) return std::nullopt;
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(count));
    at += static_cast<uint64_t>(count);
  }
  std::array<unsigned char, 32> digest{};
  EVP_DigestFinal_ex(context.get(), digest.data(), nullptr);
  return hexadecimalText(digest);
}

}  // namespace ombra
