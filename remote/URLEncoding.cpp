#include "remote/URLEncoding.h"

namespace ombra {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool isUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string encoded(std::string_view text, bool keepsSlashes) {
  std::string result;
  result.reserve(text.size() + text.size() / 4);
  for (const char c : text) {
    if (isUnreserved(c) || (keepsSlashes && c == '/')) {
      result += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    result += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
  }
  return result;
}

// The value of a hexadecimal digit; 16 when it is none.
unsigned hexValue(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 16;
}

}  // namespace

std::string percentEncoded(std::string_view text) { return encoded(text, false); }

std::string percentEncodedPath(std::string_view path) { return encoded(path, true); }

std::string percentDecoded(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const bool hasDigits = text[i] == '%' && i + 2 < text.size();
    const unsigned high = hasDigits ? hexValue(text[i + 1]) : 16;
    const unsigned low = hasDigits ? hexValue(text[i + 2]) : 16;
    if (high == 16 || low == 16) {
      result += text[i];
      continue;
    }
    result += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return result;
}

}  // namespace ombra
