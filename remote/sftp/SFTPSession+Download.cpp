// Downloads.
#include <fmt/format.h>

#include <algorithm>

#include "remote/sftp/SFTPDownload.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

namespace {

// What the protocol tells of a file's identity.
std::string versionOf(const SFTPAttributes& attributes) {
  if (!attributes.times || !attributes.size) return {};
  return fmt::format("{}:{}", attributes.times->modification, *attributes.size);
}

// By all that a file can be told by here. When it was read last does not count: reading changes that.
bool isSameFile(const SFTPAttributes& one, const SFTPAttributes& other) {
  return one.isFile() && one.permissions == other.permissions && one.size == other.size &&
         one.owner == other.owner && one.times && other.times &&
         one.times->modification == other.times->modification;
}

// Whether the item is still the one that was listed, as far as that can be told.
bool isAsListed(const SFTPAttributes& present, const SFTPAhead::Opened& listed) {
  return present.isFile() && present.size == listed.size && present.times &&
         int64_t{present.times->modification} == listed.modified;
}

// Reading more than that takes so long that what was opened ahead would be closed before its turn.
constexpr uint64_t kSmallFile = 1024 * 1024;

}  // namespace

bool SFTPSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                           TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const DownloadCall call{path, to, offset, version, control};
  const auto likelyLength = iWalks->reached(path, Walks::Kind::kFile);
  if (const auto opened = iAhead.take(path, Walks::Kind::kFile)) {
    bool isOutdated = false;
    const bool succeeded =
        downloadThrough({opened->handle, likelyLength, &*opened}, call, &isOutdated, error);
    if (!isOutdated) return succeeded;
    storeError(error, nullptr);
  }
  const auto handle = waitHandle(iRequests.open(path, kSFTPOpenRead), SFTPOperation::kOther, path, error);
  return handle && downloadThrough({*handle, likelyLength}, call, nullptr, error);
}

// The attributes and the first data come in one round trip; nothing is written before they were looked at.
std::optional<SFTPAttributes> SFTPSession::beginDownload(const DownloadSource& source,
                                                         const DownloadCall& call, SFTPDownload& download,
                                                         bool* isOutdated) {
  const SFTPAhead::Opened* ahead = source.ahead;
  if (ahead != nullptr && ahead->asked && call.offset == 0) {
    download.beginWith(ahead->asked->readID, ahead->asked->length);
    const auto named = waitAttributes(ahead->asked->statID, SFTPOperation::kOther, call.path, nullptr);
    *isOutdated = !iChannel.failure() && (!named || !isAsListed(*named, *ahead));
    if (*isOutdated) iAhead.disappoint();
    return named;
  }
  if (ahead != nullptr && ahead->asked) {
    iChannel.abandon(ahead->asked->statID);
    iChannel.abandon(ahead->asked->readID);
  }
  const uint32_t fstatID = iRequests.fstat(source.handle);
  const uint32_t statID = ahead != nullptr ? iRequests.stat(call.path) : 0;
  download.begin(source.likelyLength);
  const auto attributes = waitAttributes(fstatID, SFTPOperation::kOther, call.path, nullptr);
  if (ahead != nullptr) {
    const auto named = waitAttributes(statID, SFTPOperation::kOther, call.path, nullptr);
    *isOutdated = !iChannel.failure() && (!attributes || !named || !isSameFile(*attributes, *named));
  }
  return attributes;
}

bool SFTPSession::runDownload(SFTPDownload& download, uint64_t length, TransferControl& control,
                              NSErrorRef* error) {
  // Not before: to ask for megabytes beyond the end of a small file would cost the server something.
  download.widen(iDownloadWidth);
  const bool succeeded = download.run(control, error);
  // Only as much as the file was long enough to try.
  const uint64_t pieces = length / iChannel.readLength();
  iDownloadWidth = std::min(download.width(), std::max(iDownloadWidth, static_cast<size_t>(pieces / 2)));
  return succeeded;
}

// Nothing of it is under way any more when this returns, so that the handle can be closed.
bool SFTPSession::receiveContent(const DownloadSource& source, const DownloadCall& call,
                                 DownloadOutcome* outcome, NSErrorRef* error) {
  SFTPDownload download(iChannel, source.handle, std::string(call.path), call.to, call.offset);
  const auto attributes = beginDownload(source, call, download, &outcome->isOutdated);
  if (iChannel.failure()) storeError(error, iChannel.failure());
  if (iChannel.failure() || outcome->isOutdated) return false;
  const std::string expected = call.version != nullptr ? *call.version : std::string();
  const std::string present = attributes ? versionOf(*attributes) : std::string();
  if (!expected.empty() && expected != present) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, call.path));
    return false;
  }
  if (call.version != nullptr) *call.version = present;
  if (attributes && attributes->size) download.setExpectedLength(*attributes->size);
  if (attributes && attributes->size.value_or(kSmallFile) < kSmallFile) {
    outcome->isWellAhead = iAhead.isWellAhead();
    iAhead.openNext(call.path, Walks::Kind::kFile);
  }
  NSErrorRef reason;
  const uint64_t length = attributes ? attributes->size.value_or(0) : 0;
  const bool succeeded = runDownload(download, length, call.control, &reason);
  outcome->reached = download.reached();
  if (succeeded) return true;
  // A server that has let go of the handle refuses to read what is still there.
  outcome->isOutdated = source.ahead != nullptr && outcome->reached == call.offset &&
                        QuarnKitError::isCode(reason, kQuarnKitRefused);
  if (outcome->isOutdated && call.version != nullptr) *call.version = expected;
  storeError(error, std::move(reason));
  return false;
}

bool SFTPSession::downloadThrough(const DownloadSource& source, const DownloadCall& call, bool* isOutdated,
                                  NSErrorRef* error) {
  DownloadOutcome outcome;
  const bool succeeded = receiveContent(source, call, &outcome, error);
  if (isOutdated != nullptr) *isOutdated = outcome.isOutdated;
  if (!succeeded && iChannel.failure()) return false;
  iChannel.abandon(iRequests.close(source.handle));
  // The close must not stay behind until this session is used again. On a walk it leaves with what is asked
  // for next, or when the session is found idle.
  if (!outcome.isWellAhead) iChannel.flushBriefly();
  // Last: a program that has got its bytes asks for the next file at once, and this session has that ahead.
  if (succeeded) call.control.progress(outcome.reached);
  return succeeded;
}

}  // namespace ombra
