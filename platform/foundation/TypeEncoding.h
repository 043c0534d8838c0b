// The type encodings of the non-keyed archive format. For this folder's own sources.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ombra {

inline constexpr size_t kMaximumEncodingLength = 512;

// One type: a letter; '[' with `count` elements of its one part; '{' with its fields as parts.
struct TypeEncoding {
  char code = 0;
  uint64_t count = 0;
  std::vector<TypeEncoding> parts;
  // The least number of bytes that a value of this type takes in an archive.
  uint64_t minimumBytes = 0;

  bool isCharacterArray() const {
    return code == '[' && (parts.front().code == 'c' || parts.front().code == 'C');
  }
};

// The types of a group's encoding. Absent for anything but 1 to 512 printable ASCII characters with known
// letters, brackets nested at most 16 deep, and counts whose sizes fit 64 bits. Unions, pointers and
// bit-fields are unknown.
std::optional<std::vector<TypeEncoding>> parseTypeEncodings(std::string_view text);

}  // namespace ombra
