#include "remote/s3/S3Download.h"

#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

std::optional<uint64_t> numberOf(std::string_view text) {
  uint64_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isWhole = failure == std::errc() && end == text.data() + text.size();
  if (!isWhole || number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
  return number;
}

struct ContentRange {
  uint64_t begin = 0;
  uint64_t length = 0;  // of the whole
};

// "bytes 10-19/100"
std::optional<ContentRange> contentRange(std::string_view text) {
  constexpr std::string_view kUnit = "bytes ";
  if (!text.starts_with(kUnit)) return std::nullopt;
  text.remove_prefix(kUnit.size());
  const size_t dash = text.find('-');
  const size_t slash = text.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return std::nullopt;
  const auto begin = numberOf(text.substr(0, dash));
  const auto last = numberOf(text.substr(dash + 1, slash - dash - 1));
  const auto length = numberOf(text.substr(slash + 1));
  if (!begin || !last || !length || *last < *begin || *last + 1 != *length) return std::nullopt;
  return ContentRange{*begin, *length};
}

std::optional<uint64_t> numberIn(const HTTPResponse& head, std::string_view name) {
  const std::string* text = head.header(name);
  return text != nullptr ? numberOf(*text) : std::nullopt;
}

std::string versionOf(const std::string& tag, uint64_t length) { return tag + " " + std::to_string(length); }

std::string_view tagOf(const std::string& version) {
  return std::string_view(version).substr(0, version.rfind(' '));
}

}  // namespace

S3Download::S3Download(std::string path, NSFileHandle& to, uint64_t offset, std::string* version,
                       TransferControl& control)
    : iPath(std::move(path)), iTo(to), iOffset(offset), iVersion(version), iControl(control), iAt(offset) {}

std::vector<HTTPHeader> S3Download::headers() const {
  std::vector<HTTPHeader> headers;
  if (iOffset > 0) headers.push_back({"Range", "bytes=" + std::to_string(iOffset) + "-"});
  if (iVersion != nullptr && !iVersion->empty())
    headers.push_back({"If-Match", std::string(tagOf(*iVersion))});
  return headers;
}

bool S3Download::fail(QuarnKitErrorCode code, const std::string& why) {
  iFailure = QuarnKitError::errorWithCode(code, iPath + (why.empty() ? "" : ": " + why));
  return false;
}

// Not every server looks at "If-Match", and what stands between may answer with a page of its own.
bool S3Download::begin(const HTTPResponse& head) {
  iHasBegun = true;
  const std::string* tag = head.header("ETag");
  if (tag == nullptr || tag->empty()) return fail(kQuarnKitProtocolError, "the answer has no tag");
  std::optional<uint64_t> length;
  if (head.status == 206) {
    const std::string* text = head.header("Content-Range");
    const std::optional<ContentRange> range = text != nullptr ? contentRange(*text) : std::nullopt;
    if (!range || range->begin != iOffset) return fail(kQuarnKitProtocolError, "the answer is another part");
    length = range->length;
  } else if (iOffset == 0) {
    length = numberIn(head, "Content-Length");
  }
  if (!length) return fail(kQuarnKitProtocolError, "the answer is not the part that was asked for");
  iEnd = *length;
  if (iVersion == nullptr) return true;
  const std::string present = versionOf(*tag, iEnd);
  if (!iVersion->empty() && *iVersion != present) return fail(kQuarnKitItemChanged, "");
  *iVersion = present;
  return true;
}

bool S3Download::take(const HTTPResponse& head, std::span<const std::byte> piece) {
  if (!iHasBegun && !begin(head)) return false;
  if (iFailure != nullptr) return false;
  if (piece.size() > iEnd - iAt) return fail(kQuarnKitProtocolError, "more came than was told");
  if (!iTo.writeAll(piece.data(), piece.size(), iAt)) {
    iFailure = QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {},
                                            NSError::errorWithDomain(NSPOSIXErrorDomain, errno));
    return false;
  }
  iAt += piece.size();
  iControl.progress(iAt);
  return !iControl.shouldCancel() || fail(kQuarnKitCancelled, "");
}

bool S3Download::finish(const HTTPResponse& head, NSErrorRef* error) {
  const bool isWhole = (iHasBegun || begin(head)) && iFailure == nullptr &&
                       (iAt == iEnd || fail(kQuarnKitConnectionLost, "the content broke off"));
  if (!isWhole) storeError(error, iFailure);
  return isWhole;
}

bool S3Download::settleEnd(const HTTPResponse& head, const std::string& path, uint64_t offset,
                           std::string* version, NSErrorRef* error) {
  const std::string* tag = head.header("ETag");
  const std::optional<uint64_t> length = numberIn(head, "Content-Length");
  const std::string present = tag != nullptr && length ? versionOf(*tag, *length) : std::string();
  const bool isSame = version == nullptr || version->empty() || *version == present;
  if (isSame && length == offset) {
    if (version != nullptr) *version = present;
    return true;
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, path));
  return false;
}

}  // namespace ombra
