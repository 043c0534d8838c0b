// What the program hangs on the library's nodes, and what it adds to them.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fshelper/OFSNodeSet.h"
#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSError.h"
#include "remote/AbstractConnection.h"
#include "remote/KCNode.h"

namespace ombra {

class OFSRemoteFile;

// Keys of user properties, with the type of each value.
inline constexpr std::string_view kOFSContents = "OFSContents";              // shared_ptr<OFSNodeSet>
inline constexpr std::string_view kOFSExpirationDate = "OFSExpirationDate";  // NSDate of the last fetch
inline constexpr std::string_view kOFSResolvedPath = "OFSResolvedPath";      // std::string
inline constexpr std::string_view kOFSRemoteFile = "OFSRemoteFile";          // shared_ptr<OFSRemoteFile>
// shared_ptr<OFSNodeExtendedAttributes>
inline constexpr std::string_view kOFSExtendedAttributes = "OFSExtendedAttributes";
// NSFileAttributes, root only
inline constexpr std::string_view kOFSFileSystemAttributes = "OFSFileSystemAttributes";
// uint64_t: the library's number of the last listing that was merged; 0 where it has none
inline constexpr std::string_view kOFSListingNumber = "OFSListingNumber";

// Extended attributes of one node.
struct OFSNodeExtendedAttributes {
  Mutex lock;
  std::map<std::string, NSData, std::less<>> values GUARDED_BY(lock);
};

// The user property under `key`; absent when there is none, or it is not a T.
template <typename T>
std::optional<T> ofs_property(const KCNode& node, std::string_view key) {
  const std::any value = node.userPropertyForKey(key);
  const T* typed = std::any_cast<T>(&value);
  if (typed == nullptr) return std::nullopt;
  return *typed;
}

// The child set, null before the first listing. Work on it under the node's object lock.
std::shared_ptr<OFSNodeSet> ofs_contentsSet(const KCNode& folder);
// The open-file object that hangs on a node, or null.
std::shared_ptr<OFSRemoteFile> ofs_remoteFile(const KCNode& node);
// Size, modification date and permissions from a dictionary, entry by entry: what it lacks, the node lacks
// afterwards. With no dictionary nothing changes.
void ofs_setAttributes(KCRemoteFileNode& node, const std::optional<NSFileAttributes>& attributes);
// The modification date becomes now. A null node is let be.
void ofs_touch(KCNode* node);

// Follows a link node on the server until the answer no longer changes. Absent, with an I/O error over the
// library's, when a step fails. `targetExists` and `error` may be null.
std::optional<std::string> ofs_resolvedPathForNode(AbstractConnection& connection,
                                                   const KCRemoteFileNode& node, bool* isDirectory,
                                                   bool* targetExists, NSErrorRef* error);

// An error of the POSIX domain, over `underlying` when there is one.
NSErrorRef ofs_posixError(InterfaceErrno code, const NSErrorRef& underlying = nullptr);
// Makes that error, reports it and stores it where there is a slot; call it through OFS_FAIL(slot, code[,
// underlying]).
void ofs_fail(const char* file, int line, NSErrorRef* slot, InterfaceErrno code,
              const NSErrorRef& underlying = nullptr);
#define OFS_FAIL(slot, ...) ::ombra::ofs_fail(__FILE__, __LINE__, (slot), __VA_ARGS__)

}  // namespace ombra
