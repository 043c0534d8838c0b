#include "remote/http/HTTPLengths.h"

#include <string>

#include "platform/foundation/ASCII.h"
#include "remote/ByteCount.h"
#include "remote/http/HTTPClient.h"
#include "remote/http/HTTPText.h"

namespace ombra {

std::optional<uint64_t> httpContentLength(const HTTPResponse& head) {
  const std::string* text = head.header("Content-Length");
  return text != nullptr ? byteCount(*text) : std::nullopt;
}

std::optional<HTTPContentRange> HTTPContentRange::parse(std::string_view text) {
  text = httpTrimmed(text);
  if (!equalIgnoringCase(text.substr(0, 5), "bytes")) return std::nullopt;
  text = httpTrimmed(text.substr(5));
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  HTTPContentRange range;
  const std::string_view total = text.substr(slash + 1);
  range.total = byteCount(total);
  if (!range.total && total != "*") return std::nullopt;
  const std::string_view part = text.substr(0, slash);
  if (part == "*") return range;
  const size_t dash = part.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  range.first = byteCount(part.substr(0, dash));
  range.last = byteCount(part.substr(dash + 1));
  if (!range.first || !range.last || *range.last < *range.first) return std::nullopt;
  if (range.total && *range.last >= *range.total) return std::nullopt;
  return range;
}

std::optional<HTTPContentRange> HTTPContentRange::ofResponse(const HTTPResponse& head) {
  const std::string* text = head.header("Content-Range");
  return text != nullptr ? parse(*text) : std::nullopt;
}

}  // namespace ombra
