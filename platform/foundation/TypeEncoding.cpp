#include "platform/foundation/TypeEncoding.h"

#include <algorithm>

namespace ombra {
namespace {

constexpr unsigned kMaximumBracketDepth = 16;
constexpr std::string_view kPlainCodes = "cCBsSiIlLqQfd@#*%:+!";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Descends by brackets only, so the stack is as deep as the bracket limit.
class Parser {
 public:
  explicit Parser(std::string_view text) : iText(text) {}

  bool atEnd() const { return iAt == iText.size(); }

  bool parseType(TypeEncoding& type, unsigned depth) {
    if (atEnd()) return false;
    type.code = iText[iAt++];
    if (type.code == '[') return depth < kMaximumBracketDepth && parseArray(type, depth + 1);
    if (type.code == '{') return depth < kMaximumBracketDepth && parseStruct(type, depth + 1);
    type.minimumBytes = type.code == '!' ? 0 : 1;
    return kPlainCodes.find(type.code) != std::string_view::npos;
  }

 private:
  bool take(char c) {
    if (atEnd() || iText[iAt] != c) return false;
    ++iAt;
    return true;
  }

  bool parseCount(uint64_t& count) {
    const size_t begin = iAt;
    for (; !atEnd() && isDigit(iText[iAt]); ++iAt) {
      if (__builtin_mul_overflow(count, uint64_t{10}, &count)) return false;
      if (__builtin_add_overflow(count, static_cast<uint64_t>(iText[iAt] - '0'), &count)) return false;
    }
    return iAt > begin;
  }

  bool parseArray(TypeEncoding& array, unsigned depth) {
    TypeEncoding element;
    if (!parseCount(array.count) || !parseType(element, depth) || !take(']')) return false;
    if (__builtin_mul_overflow(array.count, element.minimumBytes, &array.minimumBytes)) return false;
    array.parts.push_back(std::move(element));
    return true;
  }

  bool parseStruct(TypeEncoding& structure, unsigned depth) {
    skipName();
    while (!take('}')) {
      TypeEncoding field;
      if (!parseType(field, depth)) return false;
      if (__builtin_add_overflow(structure.minimumBytes, field.minimumBytes, &structure.minimumBytes))
        return false;
      structure.parts.push_back(std::move(field));
    }
    return true;
  }

  // A name ends at the first "=", unless a bracket comes first: then there is none.
  void skipName() {
    const size_t end = iText.find_first_of("={}[]()", iAt);
    if (end != std::string_view::npos && iText[end] == '=') iAt = end + 1;
  }

  std::string_view iText;
  size_t iAt = 0;
};

}  // namespace

std::optional<std::vector<TypeEncoding>> parseTypeEncodings(std::string_view text) {
  const bool printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
  if (text.empty() || text.size() > kMaximumEncodingLength || !printable) return std::nullopt;
  std::vector<TypeEncoding> types;
  Parser parser(text);
  while (!parser.atEnd()) {
    TypeEncoding type;
    if (!parser.parseType(type, 0)) return std::nullopt;
    types.push_back(std::move(type));
  }
  return types;
}

}  // namespace ombra
