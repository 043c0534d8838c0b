// Bounds on property lists, checked before the parsing library sees them. The library expands shared
// references and recurses as deep as the data says, so that a hundred bytes could cost gigabytes, or the
// stack.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ombra {

inline constexpr size_t kMaximumPropertyListSize = size_t{16} << 20;
inline constexpr uint64_t kMaximumPropertyListNodes = 100000;
// Of contents, shared ones each time.
inline constexpr uint64_t kMaximumPropertyListBytes = uint64_t{16} << 20;
inline constexpr unsigned kMaximumPropertyListDepth = 64;

// True when `data` is a well-formed binary property list within the bounds above, counted as a tree: an
// object named twice counts twice. Refused as well: cycles, keys that are no texts, texts with NUL or broken
// encoding, integers of 16 bytes that need more than 8, and nulls. `reason` says what was found, without
// contents.
bool scanBinaryPropertyList(std::span<const uint8_t> data, std::string* reason);

// True when `data` is a property list in XML whose size, element count and nesting are within the bounds.
// Checks no more of it than the nesting needs; CDATA and document types with declarations are refused.
bool scanXMLPropertyList(std::span<const uint8_t> data, std::string* reason);

}  // namespace ombra
