// New files whose making waits for their content.
#include "platform/foundation/ASCII.h"
#include "remote/PooledConnection.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/RetryPauses.h"

namespace ombra {

void PoolCore::shutDown() {
  listingsAhead.stop();
  filesAhead.stop();
  newFiles.stop();
  sessions.shutDown();
}

void PoolCore::makeFile(const std::string& path) {
  // Not an owner: this object waits for the thread before it goes.
  PooledConnection connection(std::shared_ptr<PoolCore>(std::shared_ptr<PoolCore>(), this));
  NSErrorRef error;
  const auto isThis = [&path](const std::string& other, const UnconfirmedExtents*) { return other == path; };
  // Nobody waits for it any longer: who asks for the file is told.
  if (!connection.makePutOffFiles(isThis, &error)) newFiles.fail(path, std::move(error));
}

bool PooledConnection::makePutOffFiles(const PutOffFiles::IsMeant& isMeant, NSErrorRef* error) {
  PutOffFiles& newFiles = iCore->newFiles;
  if (!newFiles.has(isMeant)) return true;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    while (std::optional<PutOffFiles::Turn> turn = newFiles.take(isMeant)) {
      NSErrorRef refusal;
      const bool isMade = session.makeFile(turn->path(), &refusal);
      walks().changed(turn->path());
      if (!isMade && isOutage(refusal)) {
        *fault = std::move(refusal);
        return false;
      }
      if (!isMade && refusal == nullptr) refusal = QuarnKitError::errorWithCode(kQuarnKitRefused);
      turn->done(isMade ? nullptr : std::move(refusal));
    }
    return true;
  };
  return perform(Repeat::kSafe, work, error);
}

bool PooledConnection::makeFilesAtOrBelow(std::string_view path, NSErrorRef* error) {
  if (iCore->newFiles.isEmpty()) return true;
  const auto isThere = [place = absolute(path)](const std::string& other, const UnconfirmedExtents*) {
    return isAtOrBelowRemotePath(other, place);
  };
  return makePutOffFiles(isThere, error);
}

bool PooledConnection::makeFileToBeLookedAt(std::string_view path, NSErrorRef* error) {
  if (iCore->newFiles.isEmpty()) return true;
  const auto isThere = [place = absolute(path)](const std::string& other, const UnconfirmedExtents*) {
    return isAtOrBelowRemotePath(other, place) || equalIgnoringCase(other, place);
  };
  return makePutOffFiles(isThere, error);
}

bool PooledConnection::putOffNewFile(const NSFileHandle& handle, const std::string& path, bool* isPutOff,
                                     NSErrorRef* error) {
  *isPutOff = false;
  if (!engine().putsOffNewFiles() || !handle.isScratch() || handle.fileLength() != 0) return true;
  bool mayWait = false;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.checkNewFile(path, &mayWait, fault);
  };
  if (!perform(Repeat::kSafe, work, error)) return false;
  *isPutOff = mayWait && iCore->newFiles.putOff(path, handle.extents());
  return true;
}

void PooledConnection::noteNewFile(const NSFileHandle& handle, const std::string& path, uint64_t offset,
                                   std::optional<NSFileAttributes> attributes) {
  if (!handle.isScratch() || offset != 0) return;
  if (!attributes && !engine().looksAtNewFiles()) attributes = NSFileAttributes{.fileSize = 0};
  iCore->listings.madeFile(path, std::move(attributes));
}

// After each attempt to send something: the folder has changed, and what was stored has made the file, else
// whoever is next makes it. Answers the same again.
bool PooledConnection::endOfNewFile(Run& run, bool isStored) {
  walks().changed(run.path);
  if (run.newFile && isStored) run.newFile->done(nullptr);
  run.newFile.reset();
  return isStored;
}

}  // namespace ombra
