#include "remote/s3/S3Digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace ombra {
namespace {

constexpr size_t kHashedPiece = 256 * 1024;

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

}  // namespace

std::string s3Hexadecimal(std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string s3SHA256(std::string_view bytes) {
  std::array<unsigned char, 32> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return s3Hexadecimal(digest);
}

std::string s3MD5(std::string_view bytes) {
  std::array<unsigned char, 16> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr);
  std::array<unsigned char, 25> text{};
  const int length = EVP_EncodeBlock(text.data(), digest.data(), digest.size());
  return {reinterpret_cast<const char*>(text.data()), static_cast<size_t>(length)};
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
  return s3Hexadecimal(digest);
}

}  // namespace ombra
