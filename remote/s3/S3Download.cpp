#include "remote/s3/S3Download.h"

#include <cerrno>
#include <utility>

#include "remote/QuarnKitError.h"
#include "remote/http/HTTPLengths.h"

namespace ombra {
namespace {

bool isFromThereToTheEnd(const HTTPContentRange& range, uint64_t offset) {
  return range.first == offset && range.last && range.total && *range.last + 1 == *range.total;
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
    const std::optional<HTTPContentRange> range = HTTPContentRange::ofResponse(head);
    if (!range || !isFromThereToTheEnd(*range, iOffset))
      return fail(kQuarnKitProtocolError, "the answer is another part");
    length = range->total;
  } else if (iOffset == 0) {
    length = httpContentLength(head);
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
  const std::optional<uint64_t> length = httpContentLength(head);
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
