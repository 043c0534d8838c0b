#include "remote/webdav/DAVContent.h"

#include <fmt/format.h>

#include <algorithm>

#include "remote/ByteCount.h"
#include "remote/http/HTTPLengths.h"

namespace ombra {

namespace {

// The text up to the end of the line, which is taken off.
std::string_view takeLine(std::string_view* text) {
  const size_t end = std::min(text->find('\n'), text->size());
  const std::string_view line = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return line;
}

}  // namespace

DAVVersion DAVVersion::ofResponse(const HTTPResponse& response) {
  DAVVersion version;
  if (const std::string* tag = response.header("ETag")) {
    version.isWeak = tag->starts_with("W/");
    version.tag = tag->substr(version.isWeak ? 2 : 0);
  }
  if (const std::string* date = response.header("Last-Modified")) version.date = *date;
  if (response.header("Content-Range") == nullptr) {
    version.size = httpContentLength(response);
  } else if (const std::optional<HTTPContentRange> range = HTTPContentRange::ofResponse(response)) {
    version.size = range->total;
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
  version.size = byteCount(text);
  return version;
}

bool DAVVersion::agreesWith(const DAVVersion& other) const {
  if (!tag.empty() && !other.tag.empty() && tag != other.tag) return false;
  if (!date.empty() && !other.date.empty() && date != other.date) return false;
  return !size || !other.size || *size == *other.size;
}

}  // namespace ombra
