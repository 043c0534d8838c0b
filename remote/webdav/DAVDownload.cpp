#include "remote/webdav/DAVDownload.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "remote/QuarnKitError.h"
#include "remote/http/HTTPLengths.h"
#include "remote/webdav/DAVContent.h"
#include "remote/webdav/DAVErrors.h"

namespace ombra {

DAVDownload::DAVDownload(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                         TransferControl& control)
    : iPath(path), iTo(to), iOffset(offset), iVersion(version), iControl(control), iReached(offset) {}

void DAVDownload::prepare(HTTPRequest* request) {
  // Compressed content has other offsets.
  request->headers = {{"Accept-Encoding", "identity"}};
  request->control = &iControl;
  request->take = [this](const HTTPResponse& head, std::span<const std::byte> piece) {
    return take(head, piece);
  };
  if (iOffset > 0) request->headers.push_back({"Range", fmt::format("bytes={}-", iOffset)});
  if (iVersion == nullptr || iVersion->empty()) return;
  const DAVVersion known = DAVVersion::fromText(*iVersion);
  // The answer is compared as well, since not every server knows these; they spare the body of a changed
  // file.
  if (!known.tag.empty() && !known.isWeak) {
    request->headers.push_back({"If-Match", known.tag});
  } else if (!known.date.empty()) {
    request->headers.push_back({"If-Unmodified-Since", known.date});
  }
}

bool DAVDownload::fail(NSErrorRef reason) {
  if (iFailure == nullptr) iFailure = std::move(reason);
  return false;
}

bool DAVDownload::noteVersion(const HTTPResponse& head) {
  if (iVersion == nullptr) return true;
  const DAVVersion present = DAVVersion::ofResponse(head);
  if (!iVersion->empty() && !present.agreesWith(DAVVersion::fromText(*iVersion)))
    return fail(QuarnKitError::errorWithCode(kQuarnKitItemChanged, iPath));
  *iVersion = present.text();
  return true;
}

bool DAVDownload::beginRange(const HTTPResponse& head) {
  const std::optional<HTTPContentRange> range = HTTPContentRange::ofResponse(head);
  if (range && range->first == iOffset) return true;
  return fail(davNonsense(iPath, "the server sent another part of the file than it was asked for"));
}

bool DAVDownload::begin(const HTTPResponse& head) {
  iHasBegun = true;
  const std::string* encoding = head.header("Content-Encoding");
  if (encoding != nullptr && *encoding != "identity")
    return fail(davNonsense(iPath, "the server sent the file compressed, which it was asked not to do"));
  if (head.status == 206) {
    if (!beginRange(head)) return false;
  } else if (head.status == 200) {
    iToSkip = iOffset;
  } else {
    return fail(davError(DAVRequestKind::kDownload, head, iPath));
  }
  return noteVersion(head);
}

bool DAVDownload::take(const HTTPResponse& head, std::span<const std::byte> piece) {
  if (!iHasBegun && !begin(head)) return false;
  const auto skipped = static_cast<size_t>(std::min<uint64_t>(iToSkip, piece.size()));
  iToSkip -= skipped;
  piece = piece.subspan(skipped);
  if (!piece.empty() && !iTo.writeAll(piece.data(), piece.size(), iReached)) {
    const NSErrorRef cause = NSError::errorWithDomain(NSPOSIXErrorDomain, errno);
    return fail(QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {}, cause));
  }
  iReached += piece.size();
  if (!piece.empty()) iControl.progress(iReached);
  if (!iControl.shouldCancel()) return true;
  return fail(QuarnKitError::errorWithCode(kQuarnKitCancelled, iPath));
}

// There is nothing from the offset on: right at the file's end that is the rest.
bool DAVDownload::finishBeyondEnd(const HTTPResponse& response, NSErrorRef* error) {
  const std::optional<HTTPContentRange> range = HTTPContentRange::ofResponse(response);
  const bool isResumed = iVersion != nullptr && !iVersion->empty();
  std::optional<uint64_t> known;
  if (isResumed) known = DAVVersion::fromText(*iVersion).size;
  const std::optional<uint64_t> total = range ? range->total : std::nullopt;
  // Without a word about the length only what is known from before tells that this is the end.
  const bool isEnd =
      total ? *total == iOffset || (!isResumed && *total < iOffset) : !known || *known == iOffset;
  if (isEnd && (!known || !total || *known == *total)) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, iPath));
  return false;
}

bool DAVDownload::finish(const HTTPResponse& response, NSErrorRef* error) {
  if (response.status == 416 && iOffset > 0) return finishBeyondEnd(response, error);
  const bool isGood = response.status / 100 == 2;
  if (isGood && !iHasBegun) begin(response);
  if (isGood && iToSkip > 0) fail(QuarnKitError::errorWithCode(kQuarnKitItemChanged, iPath));
  // A server may give less than was asked for: the rest is asked for as after a lost connection.
  const std::optional<uint64_t> total = DAVVersion::ofResponse(response).size;
  if (isGood && total && iReached < *total)
    fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the server sent only a part of the file"));
  if (isGood && iFailure == nullptr) return true;
  storeError(error, isGood ? iFailure : davError(DAVRequestKind::kDownload, response, iPath));
  return false;
}

}  // namespace ombra
