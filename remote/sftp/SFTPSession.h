// A session of the file protocol.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/Session.h"
#include "remote/Walks.h"
#include "remote/sftp/SFTPAhead.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPRequests.h"
#include "remote/sftp/SFTPTransport.h"
#include "remote/sftp/SFTPUpload.h"

namespace ombra {

class SFTPDownload;

// Session (see there) over one transport. The operations are in one file per concern: SFTPSession+Names.cpp,
// +Attributes.cpp, +Listing.cpp, +Links.cpp, +Download.cpp, +Upload.cpp.
class SFTPSession final : public Session {
 public:
  // `walks` is shared by the sessions to one server.
  SFTPSession(std::unique_ptr<SFTPTransport> transport, const SessionEnvironment& environment,
              std::shared_ptr<Walks> walks = std::make_shared<Walks>());
  ~SFTPSession() override = default;

  [[nodiscard]] bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return iLoginPath; }
  bool isAlive() override;
  bool hasFailed() const override { return iChannel.hasFailed(); }
  void interrupt() override { iChannel.interrupt(); }
  void becameIdle() override { finishUpload(); }
  std::string heldPath() const override { return iUpload == nullptr ? std::string() : iUpload->path(); }
  bool hasOpenedAhead() const override { return !iAhead.isEmpty(); }
  void closeOpenedAhead() override { iAhead.closeAll(); }

  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  [[nodiscard]] bool list(std::string_view path, std::vector<RemoteEntry>* entries,
                          NSErrorRef* error) override;

  [[nodiscard]] bool createFolder(std::string_view path, NSErrorRef* error) override;
  [[nodiscard]] bool createSymbolicLink(std::string_view path, std::string_view target,
                                        NSErrorRef* error) override;
  [[nodiscard]] bool move(std::string_view from, bool isDirectory, std::string_view to,
                          NSErrorRef* error) override;
  [[nodiscard]] bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  [[nodiscard]] bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                      NSErrorRef* error) override;

  [[nodiscard]] bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                              TransferControl& control, NSErrorRef* error) override;
  [[nodiscard]] bool upload(NSFileHandle& from, std::string_view path, uint64_t offset,
                            TransferControl& control, NSErrorRef* error) override;
  [[nodiscard]] bool flushFile(std::string_view path, NSErrorRef* error) override;
  [[nodiscard]] bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                            TransferControl& control, NSErrorRef* error) override;

 private:
  // Answers of single requests. A status that is not OK becomes an error of `operation` on `path`.
  bool waitStatus(uint32_t id, SFTPOperation operation, std::string_view path, NSErrorRef* error);
  // The same for a request that a server may be long and silent about.
  bool waitStatusPatiently(uint32_t id, SFTPOperation operation, std::string_view path, NSErrorRef* error);
  bool settleStatus(std::optional<SFTPReply> reply, SFTPOperation operation, std::string_view path,
                    NSErrorRef* error);
  std::optional<std::string> waitHandle(uint32_t id, SFTPOperation operation, std::string_view path,
                                        NSErrorRef* error);
  std::optional<SFTPAttributes> waitAttributes(uint32_t id, SFTPOperation operation, std::string_view path,
                                               NSErrorRef* error);
  // The one name of a resolved path or a link's text.
  std::optional<std::string> waitName(uint32_t id, std::string_view path, NSErrorRef* error);
  // Fails with the server's status, or with a protocol error when the reply is no status.
  void refuse(const SFTPReply& reply, SFTPOperation operation, std::string_view path, NSErrorRef* error);
  // Longer paths than any system takes, and far below the packet limit of every server. Also for those that
  // the server's own names and links make up: a link that leads farther leads nowhere.
  static constexpr size_t kMaximumPathLength = 16 * 1024;
  // The beginning of each operation: also what the server has told along with the last one is not up to date
  // any more.
  bool isUsablePath(std::string_view path, NSErrorRef* error);
  // Whether something of that name is there, links not followed; a lost connection counts as no.
  std::optional<SFTPAttributes> lookAt(std::string_view path);

  std::optional<std::string> expandTilde(std::string_view path, NSErrorRef* error);
  std::optional<std::string> homeWithoutExpansion(std::string_view path, NSErrorRef* error);
  NSErrorRef explainCreation(NSErrorRef refused, std::string_view path);
  bool isEmptyFolder(std::string_view path);
  bool setAttributes(const SFTPAttributes& wanted, std::string_view path, NSErrorRef* error);
  bool hasModeAlready(const SFTPAttributes& wanted, std::string_view path);
  std::optional<SFTPAttributes> attributesToSet(const NSFileAttributes& attributes, std::string_view path,
                                                NSErrorRef* error);

  // Listing.
  struct LinkQuestion {
    size_t entry = 0;
    std::string path;
    int links = 0;  // on the way to `path`
    uint32_t readlinkID = 0;
    uint32_t realpathID = 0;
    uint32_t statID = 0;
  };
  struct Listing;
  // Lists through a handle that was opened ahead. Absent when that did not do: it has to be opened anew.
  std::optional<bool> listOpened(const SFTPAhead::Opened& opened, std::string_view path,
                                 std::vector<RemoteEntry>* entries, NSErrorRef* error);
  bool readListing(Listing& listing, NSErrorRef* error);
  void askForNames(Listing& listing);
  bool readFolder(Listing& listing, NSErrorRef* error);
  bool takeNames(Listing& listing, const SFTPReply& reply, NSErrorRef* error);
  bool settleLinks(Listing& listing, size_t remaining, NSErrorRef* error);
  bool settleEntry(Listing& listing, const LinkQuestion& question, NSErrorRef* error);
  LinkQuestion askLink(std::string path, size_t entry);
  // As many links as Linux follows on the way to one item.
  static constexpr int kMostLinksOnTheWay = 40;
  // Where the link of the question leads. A resolution that is not final is one step of the way.
  bool settleLink(const LinkQuestion& question, std::optional<std::string>* target,
                  std::optional<LinkResolution>* resolution, NSErrorRef* error);
  void abandon(const LinkQuestion& question);
  // Walks a path by hand where the server resolves nothing: to tell a circle from a link into nowhere.
  std::optional<LinkResolution> walkLink(std::string_view path, NSErrorRef* error);
  NSErrorRef explainListing(NSErrorRef refused, std::string_view path);

  // Downloads.
  // As `download` was called.
  struct DownloadCall {
    std::string_view path;
    NSFileHandle& to;
    uint64_t offset;
    std::string* version;
    TransferControl& control;
  };
  struct DownloadSource {
    std::string handle;
    std::optional<uint64_t> likelyLength;
    const SFTPAhead::Opened* ahead = nullptr;  // null when it was opened just now
  };
  struct DownloadOutcome {
    uint64_t reached = 0;      // when it succeeded
    bool isOutdated = false;   // as of `downloadThrough`
    bool isWellAhead = false;  // nothing has to be sent for the next files of a walk
  };
  // Downloads through an open handle, which it closes. One that was opened ahead may stand for another file
  // by now, or for none: then `isOutdated`, when it is not null, is set, and nothing was brought.
  bool downloadThrough(const DownloadSource& source, const DownloadCall& call, bool* isOutdated,
                       NSErrorRef* error);
  bool receiveContent(const DownloadSource& source, const DownloadCall& call, DownloadOutcome* outcome,
                      NSErrorRef* error);
  std::optional<SFTPAttributes> beginDownload(const DownloadSource& source, const DownloadCall& call,
                                              SFTPDownload& download, bool* isOutdated);
  bool runDownload(SFTPDownload& download, uint64_t length, TransferControl& control, NSErrorRef* error);

  // Uploads.
  bool openUpload(std::string_view path, uint32_t flags, std::shared_ptr<UnconfirmedExtents> extents,
                  NSErrorRef* error);
  bool openForChanges(NSFileHandle& from, std::string_view path, NSErrorRef* error);
  bool uploadCopy(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                  NSErrorRef* error);
  bool uploadChanges(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                     NSErrorRef* error);
  bool closeUpload(NSErrorRef* error);
  // Waits for the last word on what was sent, for the record of the file that it came from.
  void finishUpload();
  // The same after a failure that was told already.
  void dropUpload();
  bool isUploadOf(const NSFileHandle& from, std::string_view path) const;
  // Closes the remote handle. What was sent through it is given back unless the server has confirmed that.
  // `failure`, which may be filled already, tells why it has not.
  bool endUpload(NSErrorRef* failure);
  std::optional<std::string> openForFlush(std::string_view path, NSErrorRef* error);
  void closeUploadHandleBelow(std::string_view path);
  bool sendStream(const std::function<size_t(std::byte*, size_t)>& next, SFTPWriteQueue& queue,
                  TransferControl& control, std::string_view path, NSErrorRef* error);
  std::optional<SFTPVolume> volumeOf(std::string_view path, NSErrorRef* error);
  // The reason of a refusal that the server gave none for, as far as the volume tells it.
  NSErrorRef explainWrite(NSErrorRef refused, std::string_view path);

  SFTPChannel iChannel;
  SFTPRequests iRequests;
  const std::shared_ptr<Walks> iWalks;
  SFTPAhead iAhead;
  std::string iLoginPath;
  size_t iDownloadWidth = 0;  // requests in flight that the line has taken
  // What the running upload has made, as the server described it in the same round trip.
  std::optional<SFTPAttributes> iNewFile;
  // The folder made last, as the server described it in the same round trip.
  std::optional<std::pair<std::string, SFTPAttributes>> iMadeFolder;
  std::unique_ptr<SFTPUpload> iUpload;  // kept between uploads of one path
};

}  // namespace ombra
