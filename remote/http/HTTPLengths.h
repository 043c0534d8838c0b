// Lengths and ranges of contents, as heads tell them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ombra {

struct HTTPResponse;

// "Content-Length", when it is there and a length.
std::optional<uint64_t> httpContentLength(const HTTPResponse& head);

// "bytes 100-199/200", "bytes */200"; a star is an absent number.
struct HTTPContentRange {
  std::optional<uint64_t> first;
  std::optional<uint64_t> last;
  std::optional<uint64_t> total;
  static std::optional<HTTPContentRange> parse(std::string_view text);
  // "Content-Range", when it is there and a range.
  static std::optional<HTTPContentRange> ofResponse(const HTTPResponse& head);
};

}  // namespace ombra
