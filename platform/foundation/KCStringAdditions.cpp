#include "platform/foundation/KCStringAdditions.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "platform/foundation/NSError.h"

namespace ombra {

std::string kc_strerror(int errorNumber) {
  if (errorNumber == kENOTEMPTY) errorNumber = ENOTEMPTY;
  if (errorNumber == kENOATTR) return "Attribute not found";
  char buffer[256];
  // The GNU form: it answers its own text or fills the buffer.
  return strerror_r(errorNumber, buffer, sizeof buffer);
}

std::string ofs_times(std::string_view text, size_t n) {
  std::string result;
  result.reserve(text.size() * n);
  for (size_t i = 0; i < n; ++i) result += text;
  return result;
}

std::string kc_stringByReplacingCharactersInSet(std::string_view text, std::string_view set,
                                                std::string_view withString) {
  std::string result;
  result.reserve(text.size());
  for (char c : text) {
    if (set.find(c) != std::string_view::npos) {
      result += withString;
    } else {
      result += c;
    }
  }
  return result;
}

std::string kc_stringUniqueToArray(std::string_view text, const std::vector<std::string>& array,
                                   std::optional<std::string_view> copySuffix) {
  std::unordered_set<std::string> taken;
  for (const std::string& name : array) taken.insert(decomposedStringWithCanonicalMapping(name));
  const auto isFree = [&taken](std::string_view name) {
    return !taken.contains(decomposedStringWithCanonicalMapping(name));
  };
  if (isFree(text)) return std::string(text);
  std::string base(text);
  if (copySuffix) {
    base = fmt::format("{} {}", text, *copySuffix);
    if (isFree(base)) return base;
  }
  // Ends: there are more numbers than taken names.
  for (size_t number = 2;; ++number) {
    std::string candidate = fmt::format("{} {}", base, number);
    if (isFree(candidate)) return candidate;
  }
}

bool isASCII(std::string_view text) {
  constexpr uint64_t kHighBits = 0x8080808080808080;
  const char* at = text.data();
  size_t left = text.size();
  for (; left >= sizeof(uint64_t); at += sizeof(uint64_t), left -= sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    if ((word & kHighBits) != 0) return false;
  }
  for (; left > 0; ++at, --left) {
    if ((static_cast<unsigned char>(*at) & 0x80) != 0) return false;
  }
  return true;
}

bool canonicallyEqual(std::string_view text, std::string_view other) {
  if (text == other) return true;
  if (isASCII(text) && isASCII(other)) return false;
  return decomposedStringWithCanonicalMapping(text) == decomposedStringWithCanonicalMapping(other);
}

size_t canonicalHash(std::string_view text) {
  if (isASCII(text)) return std::hash<std::string_view>{}(text);
  return std::hash<std::string>{}(decomposedStringWithCanonicalMapping(text));
}

}  // namespace ombra
