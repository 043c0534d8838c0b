// What is fetched before anybody asks for it.
#include <sys/mman.h>

#include "remote/PooledConnection.h"

namespace ombra {

// Ends the download of a file that nobody wants any more, or that has grown.
class PooledConnection::ControlAhead final : public TransferControl {
 public:
  explicit ControlAhead(const FilesAhead::Request& request) : iRequest(request) {}
  void progress(uint64_t bytesReached) override { iBytes = bytesReached; }
  bool shouldCancel() const override { return iRequest.isCalledOff() || iBytes > FilesAhead::kMostBytes; }

 private:
  const FilesAhead::Request& iRequest;
  uint64_t iBytes = 0;
};

namespace {

// For as long as it lives, the listing of a folder that nobody wants any more is broken off: unlike a
// transfer it asks nobody whether to go on.
class Interruptible {
 public:
  Interruptible(ListingsAhead::Request& request, std::shared_ptr<Session> session) : iRequest(request) {
    iRequest.setBreakOff([listing = std::move(session)] { listing->interrupt(); });
  }
  ~Interruptible() { iRequest.setBreakOff(nullptr); }
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

 private:
  ListingsAhead::Request& iRequest;
};

}  // namespace

AheadOutcome PoolCore::listAhead(ListingsAhead::Request& request, ListingsAhead::Entries* entries) {
  // Not an owner, here and below: this object waits for the threads before it goes.
  PooledConnection connection(std::shared_ptr<PoolCore>(std::shared_ptr<PoolCore>(), this));
  return connection.listAhead(request, entries);
}

AheadOutcome PoolCore::readAhead(FilesAhead::Request& request, std::string* content) {
  PooledConnection connection(std::shared_ptr<PoolCore>(std::shared_ptr<PoolCore>(), this));
  return connection.readAhead(request, content);
}

AheadOutcome PooledConnection::listAhead(ListingsAhead::Request& request, ListingsAhead::Entries* entries) {
  iIsCalledOff = &request.isCalledOff();
  NSErrorRef fault;
  if (!attachForTransfer(&fault)) return AheadOutcome::kNoSession;
  if (!request.begins()) return AheadOutcome::kFailed;
  bool isListed = false;
  {
    const Interruptible whileListing(request, iSession->session);
    isListed = iSession->session->list(request.path(), entries, &fault);
  }
  // Perhaps it was interrupted when it had ended already.
  if (request.isCalledOff()) dropSession(false);
  if (!isListed) loseSession(fault);
  return isListed ? AheadOutcome::kFetched : AheadOutcome::kFailed;
}

AheadOutcome PooledConnection::readAhead(FilesAhead::Request& request, std::string* content) {
  iIsCalledOff = &request.isCalledOff();
  const int descriptor = memfd_create("read ahead", MFD_CLOEXEC);
  if (descriptor < 0) return AheadOutcome::kFailed;
  NSFileHandle file(descriptor);
  NSErrorRef fault;
  if (!attachForTransfer(&fault)) return AheadOutcome::kNoSession;
  if (!request.begins()) return AheadOutcome::kFailed;
  ControlAhead control(request);
  std::string version;
  if (!iSession->session->download(request.path(), file, 0, &version, control, &fault)) {
    loseSession(fault);
    return AheadOutcome::kFailed;
  }
  const uint64_t length = file.fileLength();
  if (length > FilesAhead::kMostBytes) return AheadOutcome::kFailed;
  content->resize(length);
  const bool isRead = file.readAt(content->data(), length, 0) == static_cast<ssize_t>(length);
  return isRead ? AheadOutcome::kFetched : AheadOutcome::kFailed;
}

bool PooledConnection::takeAhead(const std::string& path, NSFileHandle& file, Run& run) {
  const std::optional<std::string> content =
      iCore->filesAhead.take(path, [this] { return iShouldCancel.load(); });
  if (!content || iShouldCancel || !file.writeAll(content->data(), content->size(), 0)) return false;
  run.reporter.reached(content->size());
  return true;
}

}  // namespace ombra
