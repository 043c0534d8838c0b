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
#include "remote/FilePermissions.h"
#include "remote/KCTypes.h"

namespace ombra {

class KCCredentials;
class KCRemoteFolderNode;

// An item in the tree: a path, a display name, a parent, an expiry flag, and user properties (any object
// under a string key) on which the program hangs its own data. Each single accessor may be called from any
// thread: a leaf lock of the node guards its fields. What must hold together over several calls is guarded by
// the program with `objectLock()`, which the library itself never takes.
class KCNode : public std::enable_shared_from_this<KCNode> {
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
    MutexLock lock(iFieldLock);
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

  // An empty any when there is none. Keys are string literals with static storage.
  std::any userPropertyForKey(std::string_view key) const;
  // An empty any removes the property.
  void setUserProperty(std::any value, std::string_view forKey);

  // The object's own lock (recursive), for the program.
  RecursiveMutex& objectLock() const RETURN_CAPABILITY(iObjectLock) { return iObjectLock; }
  // The canonical hash of the display name, computed once per name.
  size_t displayNameHash() const;

 protected:
  mutable Mutex iFieldLock;
  virtual std::string displayNameForFilename(std::string_view filename) const;

 private:
  mutable RecursiveMutex iObjectLock;
  std::string iPath GUARDED_BY(iFieldLock);
  std::string iDisplayName GUARDED_BY(iFieldLock);
  // Only where it differs from the display name, which is the rule's exception.
  std::optional<std::string> iFilename GUARDED_BY(iFieldLock);
  std::weak_ptr<KCNode> iParent GUARDED_BY(iFieldLock);
  std::vector<std::pair<std::string_view, std::any>> iUserProperties GUARDED_BY(iFieldLock);
  mutable size_t iHash GUARDED_BY(iFieldLock) = 0;
  mutable bool iHashValid GUARDED_BY(iFieldLock) = false;
  bool iExpired GUARDED_BY(iFieldLock) = false;
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
  const std::shared_ptr<const KCCredentials> iCredentials;
  uint32_t iType GUARDED_BY(iFieldLock) = kNodeTypeFile;
  std::optional<uint64_t> iSize GUARDED_BY(iFieldLock);
  std::optional<NSDate> iCreationDate GUARDED_BY(iFieldLock);
  std::optional<NSDate> iModificationDate GUARDED_BY(iFieldLock);
  std::optional<FilePermissions> iPermissions GUARDED_BY(iFieldLock);
  std::unique_ptr<std::string> iTargetPath GUARDED_BY(iFieldLock);
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
