// Sizes that decide how content travels, and bounds.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ombra {

// Sizes are in bytes. Tests make them small; servers refuse parts below 5 MiB, except the last.
struct S3Limits {
  // A whole file goes in one request up to here. One that breaks off begins anew, so it is not too much.
  uint64_t singlePut = uint64_t{64} << 20;
  // The parts of a longer one, unless there would be too many.
  uint64_t filePart = uint64_t{32} << 20;
  // The first part of a stream, whose length nobody knows; a shorter stream goes in one request.
  uint64_t firstStreamPart = uint64_t{16} << 20;
  // So many parts of a stream are under way at once, each with its own connection and a file of its length.
  size_t streamParts = 6;
  // While they are, so much is taken of the next one so often: the file system gives a stream up that does
  // not take a write, of up to 1 MiB, within 12 s.
  uint64_t streamSip = uint64_t{1} << 20;
  std::chrono::milliseconds streamPace{4000};
  // The server copies so much in one request, and beyond that part by part.
  uint64_t singleCopy = uint64_t{5} << 30;
  uint64_t copyPart = uint64_t{512} << 20;
  // A folder of more items is taken for one that has no end.
  size_t mostItems = 4'000'000;
};

}  // namespace ombra
