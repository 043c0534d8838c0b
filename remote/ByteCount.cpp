#include "remote/ByteCount.h"

#include <charconv>
#include <limits>

namespace ombra {

std::optional<uint64_t> byteCount(uint64_t number) {
  if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
  return number;
}

std::optional<uint64_t> byteCount(std::string_view digits) {
  uint64_t number = 0;
  const char* end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, number);
  return result.ec == std::errc() && result.ptr == end ? byteCount(number) : std::nullopt;
}

}  // namespace ombra
