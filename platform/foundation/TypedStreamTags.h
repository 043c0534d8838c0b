// What reader and writer of the non-keyed archive format share. For this folder's own sources.
#pragma once

#include <cstdint>
#include <string_view>

namespace ombra {

// The first byte of each item, read as a signed one: -110 to 127 is a number, these are tags, the rest is
// reserved.
enum StreamTag : int8_t {
  kTagInt16 = -127,
  kTagInt32 = -126,
  kTagReal = -125,
  kTagNew = -124,
  kTagNil = -123,
  kTagEnd = -122,
  kTagInt64 = -121,
};

inline constexpr int64_t kLowestPlainNumber = -110;
// Table index n travels as the number n - 110, so that the first 238 take one byte.
inline constexpr int64_t kFirstReference = -110;

inline constexpr uint8_t kStreamerVersion = 4;
inline constexpr std::string_view kLittleEndianSignature = "streamtyped";
inline constexpr std::string_view kBigEndianSignature = "typedstream";
inline constexpr int64_t kSystemVersion = 1000;

// Nesting of objects, arrays and structures together.
inline constexpr unsigned kMaximumStreamDepth = 64;

// The bits of an integer type, 0 for other types.
constexpr unsigned integerWidth(char type) {
  switch (type) {
    case 's':
    case 'S':
      return 16;
    case 'i':
    case 'I':
    case 'l':
    case 'L':
      return 32;
    case 'q':
    case 'Q':
      return 64;
    default:
      return 0;
  }
}

constexpr bool isUnsignedType(char type) { return type >= 'A' && type <= 'Z'; }

}  // namespace ombra
