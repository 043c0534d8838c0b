#include "remote/tls/DigestText.h"

#include <openssl/evp.h>

namespace ombra {

std::string hexadecimalText(std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string base64Text(std::span<const unsigned char> bytes) {
  // The encoder ends it with a NUL.
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

std::string base64Text(std::string_view bytes) {
  return base64Text({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
}

}  // namespace ombra
