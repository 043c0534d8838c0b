// How long the parts of an upload are.
#pragma once

#include <cstdint>

namespace ombra {

inline constexpr uint32_t kS3MostParts = 10000;
inline constexpr uint64_t kS3LongestObject = uint64_t{5} << 40;
inline constexpr uint64_t kS3LongestPart = uint64_t{5} << 30;

// The length of part `number` (from 1) of a stream whose first part is `first` bytes long. It doubles each
// 980 parts: small streams stay small in memory, and 10,000 parts that begin with 5 MiB hold 5 TiB.
uint64_t s3StreamPartSize(uint32_t number, uint64_t first);
// The equal parts of something of known length: `wanted`, or as much as it takes not to have too many; whole
// MiB where it grows.
uint64_t s3PartSize(uint64_t length, uint64_t wanted);

}  // namespace ombra
