// A logical connection of the library's pool.
#pragma once

#include <atomic>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/AbstractConnection.h"
#include "remote/FilesAhead.h"
#include "remote/KnownLinks.h"
#include "remote/KnownListings.h"
#include "remote/ListingsAhead.h"
#include "remote/ProgressReporter.h"
#include "remote/PutOffFiles.h"
#include "remote/SessionPool.h"
#include "remote/StreamSpool.h"
#include "remote/TrustMemory.h"
#include "remote/Walks.h"

namespace ombra {

class PooledConnection;

// What all connections of a pool share.
struct PoolCore {
  PoolCore(std::shared_ptr<Engine> engine, std::shared_ptr<const KCCredentials> credentials)
      : sessions(std::move(engine), credentials),
        trust(credentials->option("fingerprint")),
        listingsAhead(
            walks, [this] { return spareSessions() - static_cast<int>(filesAhead.count()); },
            [this](auto& request, auto* entries) { return listAhead(request, entries); }),
        filesAhead(
            walks, [this] { return spareSessions() - static_cast<int>(listingsAhead.count()); },
            [this](auto& request, auto* content) { return readAhead(request, content); }),
        newFiles([this](const std::string& path) { makeFile(path); }) {}
  ~PoolCore() { shutDown(); }
  PoolCore(const PoolCore&) = delete;
  PoolCore& operator=(const PoolCore&) = delete;
  void shutDown();

  SessionPool sessions;
  TrustMemory trust;
  Walks walks;             // told of all changes, before whoever made them is answered
  KnownListings listings;  // told of what makes, moves and removes names, likewise
  // The last ones: their threads use the others, and those of `newFiles` all.
  ListingsAhead listingsAhead;
  FilesAhead filesAhead;
  PutOffFiles newFiles;

 private:
  // One is for what is asked for, and one is kept free of what may take long. None, while the server has
  // refused one lately.
  int spareSessions() const { return sessions.isLowered() ? 0 : sessions.cap() - 2; }
  // One that was put off, and whose time is over.
  void makeFile(const std::string& path);
  AheadOutcome listAhead(ListingsAhead::Request& request, ListingsAhead::Entries* entries);
  AheadOutcome readAhead(FilesAhead::Request& request, std::string* content);
};

// Costs nothing until its first remote call, which attaches a session; `release` gives the session back.
//
// What happens when a session is lost in the middle of a call, or the server cannot be reached for a new one:
// - Listing, attributes, resolving, real path, volume size and the flush of a file are repeated on a fresh
//   session, with short growing pauses.
// - A download goes on from the byte reached; each byte that arrives starts the count of attempts again.
// - An upload is repeated only when nothing had been sent, a stream when nothing had been taken from its
//   spool.
// - What makes, moves, deletes or changes attributes is never repeated: whether it was done is not known. But
//   as long as no session was there to send it on, it is tried for the same time as the others.
class PooledConnection final : public AbstractConnection, private SessionWaiter {
 public:
  explicit PooledConnection(std::shared_ptr<PoolCore> core) : iCore(std::move(core)) {}
  ~PooledConnection() override;

  // The holder's time is over: the session goes back, later calls fail.
  void release();
  bool isReleased() const { return iReleased.load(); }
  const PoolCore* core() const { return iCore.get(); }

  uint32_t protocol() const override { return engine().protocol(); }
  bool isSFTP() const override { return engine().isSFTP(); }
  bool isWebDAV() const override { return engine().isWebDAV(); }
  bool supportsUploadByteOffset() const override { return engine().supportsUploadByteOffset(); }
  const KCUUID& UUID() const override { return iUUID; }
  void setDelegate(ConnectionDelegate* delegate) override { iDelegate = delegate; }
  ConnectionDelegate* delegate() const override { return iDelegate; }

  std::optional<std::string> loginPath() const override { return iCore->sessions.loginPath(); }
  bool connect(NSErrorRef* error) override;
  bool changeDir(std::string_view path, NSErrorRef* error) override;
  std::optional<std::string> pwd(NSErrorRef* error) override;
  bool resolvePath(std::string_view path, std::string* resolvedPath, bool* isDirectory,
                   NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfItemAtPath(std::string_view path, bool* isDirectory,
                                                         NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributesAtPath(std::string_view path,
                                                             NSErrorRef* error) override;
  bool contentsAtPath(std::string_view path, std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                      NSErrorRef* error) override;
  bool contentsAtPath(std::string_view path, uint64_t known, FolderContents* contents,
                      NSErrorRef* error) override;
  bool createFolderAtPath(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                NSErrorRef* error) override;
  bool moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                        NSErrorRef* error) override;
  bool deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                        NSErrorRef* error) override;
  bool downloadFileAtPath(std::string_view path, NSFileHandle& toFileHandle, uint64_t byteOffset,
                          uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool uploadFileAtPath(const std::string& localPath, std::string_view toPath, uint64_t byteOffset,
                        uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool uploadFileHandle(NSFileHandle& fileHandle, std::string_view withFilename, std::string_view toPath,
                        uint64_t byteOffset, uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool streamBytesWithFilename(std::string_view filename, std::string_view toPath,
                               ConnectionDelegate& handler, NSErrorRef* error) override;
  void setWritesBehind(bool writesBehind) override { iWritesBehind = writesBehind; }
  void setPutsOffNewFiles(bool putsOffNewFiles) override { iPutsOffNewFiles = putsOffNewFiles; }
  void setTakesAhead(bool takesAhead) override { iTakesAhead = takesAhead; }
  bool finishUploads(NSFileHandle& fileHandle, std::string_view toPath, NSErrorRef* error) override;
  bool flushFileAtPath(std::string_view path, NSErrorRef* error) override;
  void setShouldCancel(bool shouldCancel) override;
  std::string displayStringForRemoteString(std::string_view bytes) const override;

  // Sees to it that those new files are on the server which were put off, or that it is known why not. False
  // when the server cannot be reached.
  bool makePutOffFiles(const PutOffFiles::IsMeant& isMeant, NSErrorRef* error);
  // What nobody has asked for yet, on a session of those that transfers may have. Not repeated.
  AheadOutcome listAhead(ListingsAhead::Request& request, ListingsAhead::Entries* entries);
  AheadOutcome readAhead(FilesAhead::Request& request, std::string* content);

 private:
  // One transfer, while it runs.
  struct Run {
    enum class Kind { kDownload, kUpload, kStream } kind;
    ProgressReporter reporter;
    StreamSpool* spool = nullptr;
    bool moved = false;         // anything was sent or received, in any session
    uint64_t sessionStart = 0;  // bytes reached when this session began
    bool givesWay = false;
    std::string heldPath{};  // of an upload, which may go on later
    std::shared_ptr<UnconfirmedExtents> heldFile{};
    std::string path{};  // of what is being sent
    std::optional<PutOffFiles::Turn> newFile{};
    std::function<bool()> ahead{};           // may bring all of it without a session
    std::optional<NSFileAttributes> made{};  // the new file, as the server told of it
  };
  class Control;
  class ControlAhead;
  using Work = std::function<bool(Session& session, NSErrorRef* error)>;
  using TransferWork = std::function<bool(Session&, TransferControl&, NSErrorRef*)>;
  enum class Repeat { kSafe, kNever };

  const Engine& engine() const { return iCore->sessions.engine(); }
  bool takesAhead() const { return iTakesAhead && engine().isAskedAhead(); }
  SessionPool& sessions() const { return iCore->sessions; }
  std::string absolute(std::string_view path) const;

  // Runs `work` with a session attached, and again as `repeat` permits.
  bool perform(Repeat repeat, const Work& work, NSErrorRef* error);
  // A change of the tree at these paths; nothing known of links holds afterwards.
  bool performChange(std::string_view path, std::string_view otherPath, const Work& work, NSErrorRef* error);
  // The same, of which no session holds any of `places` (in normal form) open.
  bool performWithoutHolders(std::initializer_list<std::string_view> places, std::string_view path,
                             std::string_view otherPath, const Work& work, NSErrorRef* error);
  bool runTransfer(Run& run, const TransferWork& work, NSErrorRef* error);
  // On one session. A transfer that gave way to one that is waited for goes on at once, in its turn.
  enum class Attempt { kDone, kGaveWay, kMayBeRepeated, kFailed };
  Attempt attemptTransfer(Run& run, const TransferWork& work, NSErrorRef* fault);
  bool upload(NSFileHandle& handle, std::string_view path, uint64_t offset, uint64_t* bytesTransferred,
              NSErrorRef* error);
  bool mayUploadFrom(uint64_t offset, NSErrorRef* error) const;
  // What is at the path or below it is on the server, as far as this pool has made it.
  bool makeFilesAtOrBelow(std::string_view path, NSErrorRef* error);
  // The same for a look at one item, which on some servers has other names too.
  bool makeFileToBeLookedAt(std::string_view path, NSErrorRef* error);
  // Whether the making of that file waits from now on; false in `isPutOff` when it is to be made now.
  bool putOffNewFile(const NSFileHandle& handle, const std::string& path, bool* isPutOff, NSErrorRef* error);
  bool endOfNewFile(Run& run, bool isStored);
  bool attachForRequest(NSErrorRef* error);
  bool attachForTransfer(NSErrorRef* error);
  void endTransfer();
  void dropSession(bool reusable);
  // Drops a session that `error` says is lost; true then.
  bool loseSession(const NSErrorRef& error);
  ProgressReporter::Report progressReport();
  ProgressReporter::Report uploadReport(std::shared_ptr<UnconfirmedExtents> file);
  bool isAllowed(std::string_view path, NSErrorRef* error) const;
  Walks& walks() const { return iCore->walks; }
  // The whole file, when it was read ahead: then it is in `file`.
  bool takeAhead(const std::string& path, NSFileHandle& file, Run& run);
  // `seconds`: how long the server took; absent when the listing had been fetched ahead.
  bool list(const std::string& folder, std::vector<RemoteEntry>* entries, std::optional<double>* seconds,
            NSErrorRef* error);
  bool listNodes(const std::string& folder, std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                 std::optional<double>* seconds, NSErrorRef* error);
  void addPutOffFile(const std::string& folder, const std::string& name,
                     std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes) const;
  // What was made in the folder since the listing `known`, as the server has it. False when the folder has to
  // be listed; `doubtful` is then a name that is there in either case.
  bool tellNews(const std::string& folder, uint64_t known, FolderContents* contents, std::string* doubtful);
  bool tellsFromOtherCase(const std::string& folder, const std::string& name, KnownListings::News& news,
                          std::string* doubtful);
  // The name with each letter of ASCII in the other case.
  std::string inOtherCase(const std::string& name) const;
  void learnCase(const std::string& folder, const std::string& name,
                 const std::vector<std::shared_ptr<KCRemoteFileNode>>& nodes);
  // Whether it is there as it was made, and then its entry.
  bool askForNewItem(const std::string& folder, const KnownListings::NewItem& item, RemoteEntry* entry);
  // An upload has ended well, or is put off: whether it has made a file.
  void noteNewFile(const NSFileHandle& handle, const std::string& path, uint64_t offset,
                   std::optional<NSFileAttributes> attributes);

  // SessionWaiter
  bool wantsToStop() const override {
    return iIsCalledOff != nullptr ? iIsCalledOff->load() : iInTransfer && iShouldCancel.load();
  }
  bool isAwaited() override;
  const std::string* preferredPath() const override { return iUploadPath; }
  bool hasOneAttempt() const override { return iHasOneAttempt; }
  bool hasSpareWork() const override {
    return iRun != nullptr && iRun->spool != nullptr && iRun->spool->wantsMore();
  }
  void doSpareWork() override { iRun->spool->fill(); }
  bool isWorthyTrust(const std::string& fingerprint) override;

  const std::shared_ptr<PoolCore> iCore;
  const KCUUID iUUID = KCUUID::UUID();
  std::atomic<ConnectionDelegate*> iDelegate{nullptr};
  std::atomic<bool> iShouldCancel{false};
  std::atomic<bool> iInTransfer{false};
  std::atomic<bool> iReleased{false};
  // Of the holder's thread:
  std::shared_ptr<PooledSession> iSession;
  bool iCountsAsTransfer = false;
  Run* iRun = nullptr;
  const std::string* iUploadPath = nullptr;
  bool iHasOneAttempt = false;
  const std::atomic<bool>* iIsCalledOff = nullptr;  // while it fetches what nobody has asked for yet
  bool iWritesBehind = false;
  bool iPutsOffNewFiles = false;
  bool iTakesAhead = false;
  std::optional<std::string> iFolder;
  KnownLinks iKnownLinks;
};

}  // namespace ombra
