#include "remote/NameEncoding.h"

#include <fmt/format.h>
#include <iconv.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>

#include "platform/foundation/ASCII.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/Unicode.h"

namespace ombra {
namespace {

constexpr size_t kLongestCharacter = 4;  // bytes; also of GB18030
// A stray byte of the text travels as the lone surrogate DC80 to DCFF.
constexpr char32_t kRawByteBase = 0xDC00;

void* unknownDescriptor() { return reinterpret_cast<void*>(static_cast<intptr_t>(-1)); }

std::optional<std::string> convert(void* descriptor, std::string_view input) {
  std::array<char, 32> output{};
  std::array<char, 8> source{};
  std::copy(input.begin(), input.end(), source.begin());
  char* from = source.data();
  char* to = output.data();
  size_t left = input.size();
  size_t room = output.size();
  iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  // A positive result counts characters that were replaced by similar ones, which would be a loss.
  if (iconv(descriptor, &from, &left, &to, &room) != 0 || left != 0) return std::nullopt;
  if (iconv(descriptor, nullptr, nullptr, &to, &room) != 0) return std::nullopt;
  return std::string(output.data(), output.size() - room);
}

std::string utf8(char32_t character) {
  std::string text;
  const auto add = [&text](char32_t bits) { text += static_cast<char>(bits); };
  if (character < 0x80) {
    add(character);
  } else if (character < 0x800) {
    add(0xC0 | character >> 6);
    add(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    add(0xE0 | character >> 12);
    add(0x80 | (character >> 6 & 0x3F));
    add(0x80 | (character & 0x3F));
  } else {
    add(0xF0 | character >> 18);
    add(0x80 | (character >> 12 & 0x3F));
    add(0x80 | (character >> 6 & 0x3F));
    add(0x80 | (character & 0x3F));
  }
  return text;
}

char32_t codePoint(std::string_view character) {
  const auto byte = [character](size_t i) {
    return static_cast<char32_t>(static_cast<unsigned char>(character[i]));
  };
  switch (character.size()) {
    case 1:
      return byte(0);
    case 2:
      return (byte(0) & 0x1F) << 6 | (byte(1) & 0x3F);
    case 3:
      return (byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
    default:
      return (byte(0) & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 | (byte(3) & 0x3F);
  }
}

std::optional<uint32_t> upperHex(std::string_view digits) {
  uint32_t value = 0;
  for (const char digit : digits) {
    if (digit >= '0' && digit <= '9') {
      value = value << 4 | static_cast<uint32_t>(digit - '0');
    } else if (digit >= 'A' && digit <= 'F') {
      value = value << 4 | static_cast<uint32_t>(digit - 'A' + 10);
    } else {
      return std::nullopt;
    }
  }
  return value;
}

// The body of a character escape at the start of `text`: its length (0: none) and the character.
size_t characterBody(std::string_view text, char32_t* character) {
  if (text.empty() || (text[0] != 'u' && text[0] != 'U')) return 0;
  const size_t digits = text[0] == 'u' ? 4 : 6;
  if (text.size() < 1 + digits) return 0;
  const std::optional<uint32_t> value = upperHex(text.substr(1, digits));
  if (!value || *value < 0x80 || *value > 0x10FFFF || (digits == 6 && *value < 0x10000)) return 0;
  if (*value >= 0xD800 && *value < 0xE000 && (*value < 0xDC80 || *value > 0xDCFF)) return 0;
  *character = *value;
  return 1 + digits;
}

// The body of a byte escape, "80" to "FF".
std::optional<char> byteBody(std::string_view text) {
  if (text.size() < 2) return std::nullopt;
  const std::optional<uint32_t> value = upperHex(text.substr(0, 2));
  if (!value || *value < 0x80) return std::nullopt;
  return static_cast<char>(*value);
}

bool isRawByte(char32_t character) { return character >= 0xDC80 && character <= 0xDCFF; }

std::string characterEscape(char32_t character) {
  return character < 0x10000 ? fmt::format("u{:04X}", static_cast<uint32_t>(character))
                             : fmt::format("U{:06X}", static_cast<uint32_t>(character));
}

size_t percentRun(std::string_view text) { return std::min(text.find_first_not_of('%'), text.size()); }

}  // namespace

NameEncoding::NameEncoding(const std::string& name)
    : iToBytes(iconv_open(name.c_str(), "UTF-8")), iToText(iconv_open("UTF-8", name.c_str())) {}

NameEncoding::~NameEncoding() {
  if (iToBytes != unknownDescriptor()) iconv_close(iToBytes);
  if (iToText != unknownDescriptor()) iconv_close(iToText);
}

bool NameEncoding::isKnown() const {
  return iToBytes != unknownDescriptor() && iToText != unknownDescriptor();
}

std::string NameEncoding::encode(char32_t character) {
  if (isRawByte(character)) return {};
  const std::string text = utf8(character);
  if (character < 0x80) return text;
  const std::optional<std::string> bytes = convert(iToBytes, text);
  // Only what comes back as the same character, and does not look like ASCII, is safe as a name.
  if (!bytes || bytes->empty() || bytes->size() > kLongestCharacter || isASCII(*bytes)) return {};
  if (convert(iToText, *bytes) != text) return {};
  std::string first;
  return decode(*bytes, &first) == bytes->size() ? *bytes : std::string();
}

size_t NameEncoding::decode(std::string_view bytes, std::string* text) {
  for (size_t length = 1; length <= std::min(kLongestCharacter, bytes.size()); ++length) {
    const std::string_view candidate = bytes.substr(0, length);
    const std::optional<std::string> decoded = convert(iToText, candidate);
    if (!decoded || decoded->empty()) continue;
    // One character, not ASCII in disguise, and the encoder's own choice for it.
    if (utf8CharacterLength(*decoded) != decoded->size() || decoded->size() == 1) return 0;
    if (convert(iToBytes, *decoded) != candidate) return 0;
    *text = *decoded;
    return length;
  }
  return 0;
}

bool NameEncoding::isForeign(char byte) {
  std::string text;
  return decode(std::string_view(&byte, 1), &text) == 0;
}

std::string NameEncoding::bytesForText(std::string_view text) {
  if (!isKnown()) return std::string(text);
  std::string bytes;
  while (!text.empty()) {
    const size_t run = percentRun(text);
    text.remove_prefix(run);
    char32_t named = 0;
    if (text.empty()) {
      bytes.append(run, '%');
    } else if (const size_t body = characterBody(text, &named); body != 0 && encode(named).empty()) {
      bytes.append(2 * run, '%').append(text.substr(0, body));
      text.remove_prefix(body);
    } else if (const std::optional<char> raw = byteBody(text); raw && isForeign(*raw)) {
      bytes.append(run / 2, '%');
      if (run % 2 == 0) {
        bytes.append(text.substr(0, 2));
      } else {
        bytes += *raw;
      }
      text.remove_prefix(2);
    } else {
      const size_t length = utf8CharacterLength(text);
      const char32_t character = length != 0 ? codePoint(text.substr(0, length))
                                             : kRawByteBase + static_cast<unsigned char>(text[0]);
      const std::string encoded = encode(character);
      bytes.append(encoded.empty() ? 2 * run + 1 : run, '%');
      bytes.append(encoded.empty() ? characterEscape(character) : encoded);
      text.remove_prefix(std::max<size_t>(length, 1));
    }
  }
  return bytes;
}

std::string NameEncoding::textForBytes(std::string_view bytes) {
  if (!isKnown()) return std::string(bytes);
  std::string text;
  while (!bytes.empty()) {
    const size_t run = percentRun(bytes);
    bytes.remove_prefix(run);
    char32_t named = 0;
    std::string decoded;
    if (bytes.empty()) {
      text.append(run, '%');
    } else if (const size_t body = characterBody(bytes, &named); body != 0 && encode(named).empty()) {
      text.append(run / 2, '%');
      if (run % 2 == 0) {
        text.append(bytes.substr(0, body));
      } else {
        text.append(isRawByte(named) ? std::string(1, static_cast<char>(named - kRawByteBase)) : utf8(named));
      }
      bytes.remove_prefix(body);
    } else if (const std::optional<char> raw = byteBody(bytes); raw && isForeign(*raw)) {
      text.append(2 * run, '%').append(bytes.substr(0, 2));
      bytes.remove_prefix(2);
    } else if (static_cast<unsigned char>(bytes[0]) < 0x80) {
      text.append(run, '%').append(1, bytes[0]);
      bytes.remove_prefix(1);
    } else if (const size_t length = decode(bytes, &decoded)) {
      text.append(run, '%').append(decoded);
      bytes.remove_prefix(length);
    } else {
      text.append(2 * run + 1, '%');
      text.append(fmt::format("{:02X}", static_cast<unsigned char>(bytes[0])));
      bytes.remove_prefix(1);
    }
  }
  return text;
}

NameEncoding& NameEncoding::threadEncoding(const std::string& name) {
  thread_local std::map<std::string, std::unique_ptr<NameEncoding>> sEncodings;
  std::unique_ptr<NameEncoding>& encoding = sEncodings[name];
  if (encoding == nullptr) encoding = std::make_unique<NameEncoding>(name);
  return *encoding;
}

bool NameEncoding::isUTF8(std::string_view name) {
  std::string folded;
  for (const char character : name) {
    if (character != '-' && character != '_') folded += lowercasedASCII(character);
  }
  return folded.empty() || folded == "utf8";
}

}  // namespace ombra
