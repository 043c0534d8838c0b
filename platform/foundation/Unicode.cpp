#include "platform/foundation/Unicode.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

struct FreeDeleter {
  void operator()(utf8proc_uint8_t* bytes) const { std::free(bytes); }
};

// Appends the mapping of `run`, which is well-formed. What the tables cannot map (no memory) stays as it is.
void appendMapped(std::string& result, std::string_view run, utf8proc_option_t options) {
  utf8proc_uint8_t* mapped = nullptr;
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(run.data());
  const utf8proc_ssize_t length =
      utf8proc_map(bytes, static_cast<utf8proc_ssize_t>(run.size()), &mapped, options);
  const std::unique_ptr<utf8proc_uint8_t, FreeDeleter> owned(mapped);
  if (length < 0) {
    result += run;
  } else {
    result.append(reinterpret_cast<const char*>(mapped), static_cast<size_t>(length));
  }
}

size_t wellFormedPrefix(std::string_view text) {
  size_t at = 0;
  while (at < text.size()) {
    const size_t length = utf8CharacterLength(text.substr(at));
    if (length == 0) break;
    at += length;
  }
  return at;
}

// Maps the well-formed stretches of `text` and copies the bytes between them.
std::string mapped(std::string_view text, utf8proc_option_t options) {
  if (isASCII(text)) return std::string(text);
  std::string result;
  result.reserve(text.size() + text.size() / 2);
  while (!text.empty()) {
    const size_t length = wellFormedPrefix(text);
    if (length > 0) appendMapped(result, text.substr(0, length), options);
    text.remove_prefix(length);
    if (text.empty()) break;
    result += text.front();
    text.remove_prefix(1);
  }
  return result;
}

// The allowed range of the second byte depends on the first (Unicode, table 3-7).
bool isSecondByte(unsigned char lead, unsigned char second) {
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead == 0xE0) low = 0xA0;
  if (lead == 0xED) high = 0x9F;
  if (lead == 0xF0) low = 0x90;
  if (lead == 0xF4) high = 0x8F;
  return second >= low && second <= high;
}

size_t lengthFromLead(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

}  // namespace

size_t utf8CharacterLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const size_t length = lengthFromLead(byte(0));
  if (length > text.size()) return 0;
  if (length >= 2 && !isSecondByte(byte(0), byte(1))) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

std::string sanitizedUTF8(std::string_view text) {
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const size_t length = text.front() == '\0' ? 0 : utf8CharacterLength(text);
    result += length > 0 ? text.substr(0, length) : kReplacement;
    text.remove_prefix(length > 0 ? length : 1);
  }
  return result;
}

std::string decomposedStringWithCanonicalMapping(std::string_view text) {
  return mapped(text, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE));
}

std::string precomposedStringWithCanonicalMapping(std::string_view text) {
  return mapped(text, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
}

bool isValidUTF8(std::string_view text) { return isASCII(text) || wellFormedPrefix(text) == text.size(); }

}  // namespace ombra
