// The tree of remote items.
#pragma once

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SmallMutex.h"
#include "remote/FilePermissions.h"
#include "remote/FolderPaths.h"
#include "remote/KCTypes.h"

namespace ombra {

class KCCredentials;
class KCRemoteFolderNode;

// An item in the tree: a path, a display name, a parent, an expiry flag, and user properties (any object
// under a string key) on which the program hangs its own data. Each single accessor may be called from any
// thread: a leaf lock of the node guards its fields. What must hold together over several calls is guarded by
// the program with `objectLock()`, which the library itself never takes.
//
// A volume may have a million of them, each with an allocation: what siblings have in common is shared, and
// what few nodes have is allocated by those that have it.
class KCNode {
 public:
  // The display name is the last component of `path`.
  explicit KCNode(std::string path);
  virtual ~KCNode();
  KCNode(const KCNode&) = delete;
  KCNode& operator=(const KCNode&) = delete;

  std::string path() const;
  // The display name and the file name follow the last component of the new path (through the credentials'
  // conversion where the node has credentials).
  void setPath(std::string path);
  std::string displayName() const;
  void setDisplayName(std::string name);
  // Whether the display name is canonically equal to `name`. Copies nothing.
  bool isNamed(std::string_view name) const {
    SmallMutexLock lock(iFieldLock);
    return canonicallyEqual(iDisplayName, name);
  }
  // The entry's name as the server lists it, in the server's bytes.
  std::string filename() const;
  void setFilename(std::string name);
  // The parent is not owned; none when it is gone.
  std::shared_ptr<KCNode> parent() const;
  void setParent(const std::shared_ptr<KCNode>& parent);
  virtual uint32_t type() const { return 0; }
  bool isExpired() const;
  void setExpired(bool expired);
  // Expired as well, but for no other reason than that the program itself has made something in the folder.
  void setHasNewItems(bool hasNewItems);
  bool hasOnlyNewItems() const;
  // It has been listed: as a whole it is not expired any more, else what it was expired for besides new items
  // stays. What was made meanwhile is said in the same step, so that nobody sees it up to date in between.
  void setListed(bool isWhole, bool hasNewItems);

  // An empty any when there is none. Keys are string literals with static storage.
  std::any userPropertyForKey(std::string_view key) const;
  // An empty any removes the property.
  void setUserProperty(std::any value, std::string_view forKey);

  // The object's own lock (recursive), for the program. Made when it is first asked for.
  RecursiveMutex& objectLock() const;
  // A hash of the display name's canonical form, of 32 bits, computed once per name.
  size_t displayNameHash() const;

 protected:
  // What folders, open files and links have, and nodes whose names do not follow from their paths.
  struct Rare {
    RecursiveMutex objectLock;
    std::vector<std::pair<std::string_view, std::any>> userProperties;
    std::optional<std::string> filename;  // where it is not the display name
    std::optional<std::string> targetPath;
  };

  // Of the empty path, with `displayName` as both names.
  struct OnlyName {
    std::string displayName;
  };
  explicit KCNode(OnlyName name) : iDisplayName(std::move(name.displayName)) {}

  // All yes-or-no in one byte: which attributes are known, and what is said of the path and the listing.
  enum Flag : uint8_t {
    kExpired = 1,
    kPathEndsInName = 2,
    kSize = 4,
    kCreationDate = 8,
    kModificationDate = 16,
    kPermissions = 32,
    kHasNewItems = 64
  };

  bool locked_has(Flag flag) const REQUIRES(iFieldLock) { return (iFlags & flag) != 0; }
  void locked_setFlag(Flag flag, bool value) REQUIRES(iFieldLock);
  // Made when there is none; it stays for the node's life.
  Rare& rare() const REQUIRES(iFieldLock);
  const Rare* rareIfAny() const REQUIRES(iFieldLock) { return iRare.get(); }
  virtual std::string displayNameForFilename(std::string_view filename) const;

  mutable SmallMutex iFieldLock;

 private:
  std::string locked_path() const REQUIRES(iFieldLock);
  const std::string& locked_filename() const REQUIRES(iFieldLock);
  void locked_setFilename(std::string name) REQUIRES(iFieldLock);

  mutable uint32_t iHash GUARDED_BY(iFieldLock) = 0;  // 0: to be computed
  // The path; with kPathEndsInName without its last component, which is the display name. Null: empty.
  FolderPath iPath GUARDED_BY(iFieldLock);
  std::string iDisplayName GUARDED_BY(iFieldLock);
  mutable std::unique_ptr<Rare> iRare GUARDED_BY(iFieldLock);
  std::weak_ptr<KCNode> iParent GUARDED_BY(iFieldLock);
  uint8_t iFlags GUARDED_BY(iFieldLock) = 0;
};

// A remote file or symbolic link.
class KCRemoteFileNode : public KCNode {
 public:
  KCRemoteFileNode(std::string path, std::shared_ptr<const KCCredentials> credentials);

  uint32_t type() const override;
  // kNodeTypeFile (the default) or kNodeTypeAlias; for the engines.
  void setType(uint32_t type);
  const std::shared_ptr<const KCCredentials>& credentials() const { return iCredentials; }

  // Size, dates and permissions as one dictionary.
  NSFileAttributes attributes() const;
  void setAttributes(const NSFileAttributes& attributes);
  std::optional<uint64_t> size() const;
  void setSize(std::optional<uint64_t> size);
  std::optional<NSDate> creationDate() const;
  std::optional<NSDate> modificationDate() const;
  void setModificationDate(std::optional<NSDate> date);
  std::optional<FilePermissions> permissions() const;
  void setPermissions(std::optional<FilePermissions> permissions);
  // The text of a link as listed; absent for other items.
  std::optional<std::string> targetPath() const;
  void setTargetPath(std::optional<std::string> target);

 protected:
  std::string displayNameForFilename(std::string_view filename) const override;

 private:
  void locked_setSize(std::optional<uint64_t> size) REQUIRES(iFieldLock);
  void locked_setModificationDate(std::optional<NSDate> date) REQUIRES(iFieldLock);
  void locked_setPermissions(std::optional<uint16_t> mode) REQUIRES(iFieldLock);

  // In an order that leaves no gaps.
  uint16_t iPermissions GUARDED_BY(iFieldLock) = 0;
  uint32_t iType GUARDED_BY(iFieldLock) = kNodeTypeFile;
  const std::shared_ptr<const KCCredentials> iCredentials;
  uint64_t iSize GUARDED_BY(iFieldLock) = 0;
  NSDate iCreationDate GUARDED_BY(iFieldLock);
  NSDate iModificationDate GUARDED_BY(iFieldLock);
};

// A remote folder.
class KCRemoteFolderNode final : public KCRemoteFileNode {
 public:
  using KCRemoteFileNode::KCRemoteFileNode;
  static std::shared_ptr<KCRemoteFolderNode> folderNodeWithPath(
      std::string path, std::shared_ptr<const KCCredentials> credentials);
  uint32_t type() const override { return kNodeTypeFolder; }
};

}  // namespace ombra
