// A session with an S3 server.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/Session.h"
#include "remote/s3/S3Client.h"
#include "remote/s3/S3Limits.h"
#include "remote/s3/S3Path.h"

namespace ombra {

class S3Copier;
class S3PartBuffer;
class S3PartSenders;

// "/" lists the buckets; what lies below a bucket is a tree of folders made from the keys' slashes. A folder
// is there as long as a key begins with its name: a new one gets an empty object as its marker, and one
// without a marker gets it before its last item goes away, so that folders come and go by the user's word
// alone, as on any disk. Where a folder and an object have the same name, the folder is shown.
//
// Objects are replaced as a whole and at once, so that no upload ever leaves half a file. A move is a copy
// and a removal; nothing is removed before everything was copied.
class S3Session final : public Session {
 public:
  // `endpoint` is absent when the credentials name none that makes sense; the login then says so.
  S3Session(SessionEnvironment environment, std::optional<S3Endpoint> endpoint,
            std::shared_ptr<S3Knowledge> knowledge, S3Limits limits = {});

  bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return "/"; }
  bool isAlive() override { return iClient.isAlive(); }
  void interrupt() override EXCLUDES(iCopierLock);

  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) override;

  bool createFolder(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) override;
  bool move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) override;
  bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                        NSErrorRef* error) override;

  bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                TransferControl& control, NSErrorRef* error) override;
  bool upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
              NSErrorRef* error) override;
  bool checkNewFile(std::string_view path, bool* mayWait, NSErrorRef* error) override;
  bool makeFile(std::string_view path, NSErrorRef* error) override;
  bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
              TransferControl& control, NSErrorRef* error) override;

 private:
  // What a path names.
  enum class Kind { kNothing, kObject, kFolder };
  struct Item {
    Kind kind = Kind::kNothing;
    NSFileAttributes attributes;
  };
  // The first keys below a prefix.
  struct Glimpse {
    std::vector<std::string> keys;
    bool isMarked = false;  // the folder itself is one of them
  };
  // The first page of the start folder, as the login got it.
  struct StartPage {
    S3Path folder;
    S3Listing listing;
    std::chrono::steady_clock::time_point came;
    uint64_t changes = 0;  // that any session had made before it was asked for
  };

  bool askForLogin(NSErrorRef* error);
  bool hasSeen(const S3Path& folder) const;
  bool noteStart(const S3Path& start, bool isPage, const std::string& body);
  std::optional<S3Listing> takeStartPage(const S3Path& folder);

  // Looking.
  std::optional<Item> look(const S3Path& path, NSErrorRef* error);
  std::optional<Item> lookAtBucket(const S3Path& path, NSErrorRef* error);
  std::optional<S3Answer> askForObject(const S3Path& path, NSErrorRef* error);
  std::optional<S3Listing> listPage(const S3Path& folder, const std::string& prefix, bool isFlat, int most,
                                    const std::string& token, NSErrorRef* error);
  // All pages of what lies below a folder, in it alone or, flat, at any depth, one after the other; false as
  // well where there is no end of them.
  bool listPages(const S3Path& folder, bool isFlat, const std::function<void(const S3Listing& page)>& take,
                 NSErrorRef* error);
  std::optional<Glimpse> glimpse(const S3Path& folder, int most, NSErrorRef* error);
  bool listBuckets(std::vector<RemoteEntry>* entries, NSErrorRef* error);
  bool listFolder(const S3Path& folder, std::vector<RemoteEntry>* entries, NSErrorRef* error);
  // The folder in which something is to be made must be there; known ones are not asked for again.
  bool requireFolder(const S3Path& folder, NSErrorRef* error);
  bool sawNothing(const S3Path& path, NSErrorRef* error);

  // Changing.
  std::optional<Kind> kindOfName(const S3Path& path, NSErrorRef* error);
  bool putMarker(const S3Path& folder, NSErrorRef* error);
  bool deleteKey(const std::string& bucket, const std::string& key, NSErrorRef* error);
  bool deleteKeys(const std::string& bucket, const std::vector<std::string>& keys, NSErrorRef* error);
  bool deleteBatch(const std::string& bucket, const std::vector<std::string>& keys, bool* isRefused,
                   NSErrorRef* error);
  // Sees to it that the folder `path` lies in does not vanish with it.
  bool keepParent(const S3Path& path, NSErrorRef* error);
  bool removeObject(const S3Path& path, NSErrorRef* error);
  bool removeFolder(const S3Path& path, NSErrorRef* error);

  // Moving.
  struct Source {
    std::string key;
    uint64_t size = 0;
  };
  bool moveObject(const S3Path& from, const S3Path& to, NSErrorRef* error);
  bool moveFolder(const S3Path& from, const S3Path& to, NSErrorRef* error);
  bool mayMoveFolderTo(const S3Path& to, NSErrorRef* error);
  std::optional<std::vector<Source>> sourcesBelow(const S3Path& folder, NSErrorRef* error);
  bool copyAll(const std::vector<Source>& sources, const S3Path& from, const S3Path& to, NSErrorRef* error);
  void setCopier(S3Copier* copier) EXCLUDES(iCopierLock);

  // Transferring.
  // Before content of that length is sent: who wants to see the new file does not wait long for it.
  bool takeOverNewFile(const S3Path& path, uint64_t length, TransferControl& control, NSErrorRef* error);
  bool putFile(NSFileHandle& from, uint64_t length, const S3Path& path, TransferControl& control,
               NSErrorRef* error);
  bool putFileInParts(NSFileHandle& from, uint64_t length, const S3Path& path, TransferControl& control,
                      NSErrorRef* error);
  bool sendWhole(NSFileHandle& from, uint64_t length, const S3Path& path, TransferControl& control,
                 NSErrorRef* error);
  // Remembers an object that was stored, and hands on whether it was.
  bool noteStored(const S3Path& path, bool isStored);
  // Adds to the buffer until it holds so much, or all there is.
  using Gather = std::function<bool(S3PartBuffer& buffer, uint64_t size)>;
  bool gatherPart(S3PartSenders& senders, S3PartBuffer& buffer, uint64_t size, const Gather& gather,
                  TransferControl& control, NSErrorRef* error) const;
  bool putBuffer(S3PartBuffer& buffer, const S3Path& path, TransferControl& control, NSErrorRef* error);
  bool explainUnsatisfiable(const S3Path& path, uint64_t offset, std::string* version, NSErrorRef* error);

  bool refuseOutsideOfBucket(const S3Path& path, NSErrorRef* error) const;

  const bool iHasEndpoint;
  const S3Limits iLimits;
  const std::shared_ptr<std::atomic<bool>> iIsLoggedIn = std::make_shared<std::atomic<bool>>(false);
  S3Client iClient;
  // The folder that was made with the latest request, which whoever makes one looks at next.
  std::optional<S3Path> iMadeFolder;
  uint64_t iRequestsWhenMade = 0;
  std::optional<StartPage> iStartPage;
  Mutex iCopierLock;
  S3Copier* iCopier GUARDED_BY(iCopierLock) = nullptr;  // while a folder moves
};

}  // namespace ombra
