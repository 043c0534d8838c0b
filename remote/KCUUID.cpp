#include "remote/KCUUID.h"

#include <sys/random.h>

#include <cerrno>

#include "platform/foundation/NSError.h"

namespace ombra {
namespace {

constexpr size_t kTextLength = 36;

bool isDashPosition(size_t index) { return index == 8 || index == 13 || index == 18 || index == 23; }

std::optional<uint8_t> hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<uint8_t>(digit - '0');
  if (digit >= 'A' && digit <= 'F') return static_cast<uint8_t>(digit - 'A' + 10);
  if (digit >= 'a' && digit <= 'f') return static_cast<uint8_t>(digit - 'a' + 10);
  return std::nullopt;
}

}  // namespace

KCUUID KCUUID::UUID() {
  KCUUID uuid;
  size_t filled = 0;
  while (filled < uuid.iBytes.size()) {
    const ssize_t count = getrandom(uuid.iBytes.data() + filled, uuid.iBytes.size() - filled, 0);
    if (count < 0 && errno == EINTR) continue;
    // Cache-file names rest on these numbers: better no file system than predictable ones.
    if (count <= 0) throw KCException("The system gives no random numbers.");
    filled += static_cast<size_t>(count);
  }
  uuid.iBytes[6] = static_cast<uint8_t>((uuid.iBytes[6] & 0x0F) | 0x40);  // version 4
  uuid.iBytes[8] = static_cast<uint8_t>((uuid.iBytes[8] & 0x3F) | 0x80);  // the RFC's variant
  return uuid;
}

std::optional<KCUUID> KCUUID::uuidWithString(std::string_view text) {
  if (text.size() != kTextLength) return std::nullopt;
  KCUUID uuid;
  size_t digits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (isDashPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const std::optional<uint8_t> value = hexValue(text[i]);
    if (!value) return std::nullopt;
    uint8_t& byte = uuid.iBytes[digits / 2];
    byte = static_cast<uint8_t>(byte << 4 | *value);
    ++digits;
  }
  return uuid;
}

std::string KCUUID::stringValue() const {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  text.reserve(kTextLength);
  for (const uint8_t byte : iBytes) {
    if (isDashPosition(text.size())) text += '-';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

}  // namespace ombra
