#include "remote/webdav/DAVContent.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "remote/http/HTTPText.h"

namespace ombra {

namespace {

std::optional<uint64_t> lengthOf(std::string_view text) {
  uint64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
  if (!isWhole || value > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
  return value;
}

// The text up to the end of the line, which is taken off.
std::string_view takeLine(std::string_view* text) {
  const size_t end = std::min(text->find('\n'), text->size());
  const std::string_view line = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return line;
}

}  // namespace

std::optional<DAVContentRange> DAVContentRange::parse(std::string_view text) {
  text = httpTrimmed(text);
  if (!httpEqual(text.substr(0, 5), "bytes")) return std::nullopt;
  text = httpTrimmed(text.substr(5));
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  DAVContentRange range;
  const std::string_view total = text.substr(slash + 1);
  range.total = lengthOf(total);
  if (!range.total && total != "*") return std::nullopt;
  const std::string_view part = text.substr(0, slash);
  if (part == "*") return range;
  const size_t dash = part.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  range.first = lengthOf(part.substr(0, dash));
  range.last = lengthOf(part.substr(dash + 1));
  if (!range.first || !range.last || *range.last < *range.first) return std::nullopt;
  if (range.total && *range.last >= *range.total) return std::nullopt;
  return range;
}

DAVVersion DAVVersion::ofResponse(const HTTPResponse& response) {
  DAVVersion version;
  if (const std::string* tag = response.header("ETag")) {
    version.isWeak = tag->starts_with("W/");
    version.tag = tag->substr(version.isWeak ? 2 : 0);
  }
  if (const std::string* date = response.header("Last-Modified")) version.date = *date;
  if (const std::string* text = response.header("Content-Range")) {
    if (const std::optional<DAVContentRange> range = DAVContentRange::parse(*text))
      version.size = range->total;
  } else if (const std::string* length = response.header("Content-Length")) {
    version.size = lengthOf(*length);
  }
  return version;
}

std::string DAVVersion::text() const {
  return fmt::format("{}\n{}\n{}\n{}", isWeak ? "weak" : "strong", tag, date,
                     size ? std::to_string(*size) : "");
}

DAVVersion DAVVersion::fromText(std::string_view text) {
  DAVVersion version;
  version.isWeak = takeLine(&text) == "weak";
  version.tag = takeLine(&text);
  version.date = takeLine(&text);
  version.size = lengthOf(text);
  return version;
}

bool DAVVersion::agreesWith(const DAVVersion& other) const {
  if (!tag.empty() && !other.tag.empty() && tag != other.tag) return false;
  if (!date.empty() && !other.date.empty() && date != other.date) return false;
  return !size || !other.size || *size == *other.size;
}

}  // namespace ombra
