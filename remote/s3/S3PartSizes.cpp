#include "remote/s3/S3PartSizes.h"

#include <algorithm>

namespace ombra {
namespace {

constexpr uint32_t kPartsOfOneSize = 980;
constexpr uint64_t kMiB = uint64_t{1} << 20;

}  // namespace

uint64_t s3StreamPartSize(uint32_t number, uint64_t first) {
  const uint32_t doublings = std::min<uint32_t>((number - 1) / kPartsOfOneSize, 32);
  return std::min(first << doublings, kS3LongestPart);
}

uint64_t s3PartSize(uint64_t length, uint64_t wanted) {
  const uint64_t least = (length + kS3MostParts - 1) / kS3MostParts;
  if (least <= wanted) return wanted;
  return (least + kMiB - 1) / kMiB * kMiB;
}

}  // namespace ombra
