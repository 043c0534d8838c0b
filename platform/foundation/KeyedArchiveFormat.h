// What reader and writer of the keyed archive format share. For this folder's own sources.
#pragma once

#include <cstdint>
#include <string_view>

namespace ombra {

inline constexpr std::string_view kArchiverName = "NSKeyedArchiver";
inline constexpr uint64_t kArchiveVersion = 100000;
inline constexpr std::string_view kNullText = "$null";

// Containers and errors inside each other.
inline constexpr unsigned kMaximumArchiveDepth = 32;
// Errors beneath the archived one; real chains have two or three links.
inline constexpr unsigned kMaximumUnderlyingErrors = 8;

// Seconds from 1970 to 2001, where the format's dates begin.
inline constexpr double kArchiveDateOrigin = 978307200;
// What fits in nanoseconds of 64 bits, about 290 years to both sides of 1970.
inline constexpr double kFarthestArchiveDate = 9.2e9;

}  // namespace ombra
