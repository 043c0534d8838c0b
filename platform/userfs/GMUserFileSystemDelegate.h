// What a file system answers to GMUserFileSystem.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// What a delegate keeps per open file; the framework holds it from open to release and hands it back.
class GMOpenFile {
 public:
  virtual ~GMOpenFile() = default;
};
using GMUserData = std::shared_ptr<GMOpenFile>;

// A path below the volume's root, or none. Paths are absolute ("/" is the root) and valid during the call
// only. Reads, writes and releases of a file that has been removed while it was open come without a path.
using OptionalPath = std::optional<std::string_view>;

// The required operations. Called on several threads at once; each may block for as long as a server takes.
// Failure: false, absent or -1, with an error of NSPOSIXErrorDomain in the slot whose code is one of
// InterfaceErrno; the slot may be null. A failure without an error counts as EIO.
class GMUserFileSystemDelegate {
 public:
  virtual ~GMUserFileSystemDelegate() = default;

  // Just before the volume is mounted; cannot refuse.
  virtual void willMount() = 0;

  // The names of a folder's entries in canonical decomposed form, without "." and "..".
  virtual std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(OptionalPath path,
                                                                            NSErrorRef* error) = 0;
  // What is known of an item; `userData` of an open file, null otherwise. What is absent, the framework
  // fills.
  virtual std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath path,
                                                                 const GMUserData& userData,
                                                                 NSErrorRef* error) = 0;
  // The volume's size and what is free of it, in bytes.
  virtual std::optional<NSFileAttributes> attributesOfFileSystemForPath(OptionalPath path,
                                                                        NSErrorRef* error) = 0;
  // Changes those that are present: size, mode, date of modification. `userData` as above.
  virtual bool setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                             const GMUserData& userData, NSErrorRef* error) = 0;

  virtual bool createDirectoryAtPath(OptionalPath path, const NSFileAttributes& attributes,
                                     NSErrorRef* error) = 0;
  // Makes an empty file, or empties the one that is there, and opens it for reading and writing, as
  // `openFileAtPath` does.
  virtual bool createFileAtPath(OptionalPath path, const NSFileAttributes& attributes, GMUserData* userData,
                                NSErrorRef* error) = 0;
  virtual bool createSymbolicLinkAtPath(OptionalPath path, OptionalPath withDestinationPath,
                                        NSErrorRef* error) = 0;
  // The text of the link, as the caller of readlink(2) is to have it.
  virtual std::optional<std::string> destinationOfSymbolicLinkAtPath(OptionalPath path,
                                                                     NSErrorRef* error) = 0;
  // Replaces what is at the destination, unless that is a folder with entries, or a file in a folder's way.
  virtual bool moveItemAtPath(OptionalPath path, OptionalPath toPath, NSErrorRef* error) = 0;
  // A file, a link or an empty folder.
  virtual bool removeItemAtPath(OptionalPath path, NSErrorRef* error) = 0;

  // `mode` holds InterfaceOpenFlags. Each success is followed by one `releaseFileAtPath` with what is in
  // `userData` then, which is null for a file system that keeps nothing for an open file.
  virtual bool openFileAtPath(OptionalPath path, int mode, GMUserData* userData, NSErrorRef* error) = 0;
  // The count of bytes: fewer than `size` where the file, or what has arrived of it, ends.
  virtual int readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size,
                             int64_t offset, NSErrorRef* error) = 0;
  // The count of bytes that were taken; the framework asks again for the rest.
  virtual int writeFileAtPath(OptionalPath path, const GMUserData& userData, const void* buffer, size_t size,
                              int64_t offset, NSErrorRef* error) = 0;
  // To a size in bytes. True with an error in the slot: it may have failed, and the size tells.
  virtual bool truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                                  NSErrorRef* error) = 0;
  // May raise KCException: what the last upload failed of.
  virtual void releaseFileAtPath(OptionalPath path, const GMUserData& userData) = 0;

  virtual std::optional<std::vector<std::string>> extendedAttributesOfItemAtPath(OptionalPath path,
                                                                                 NSErrorRef* error) = 0;
  // The value from the byte at `position` on; ENOATTR for a name that is not there.
  virtual std::optional<NSData> valueOfExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath,
                                                         int64_t position, NSErrorRef* error) = 0;
  // `options` holds InterfaceXattrOptions. There is no removal: the framework answers it as not supported.
  virtual bool setExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath, const NSData& value,
                                    int64_t position, int options, NSErrorRef* error) = 0;
};

// How far the content of an open file has come.
enum class GMContentState {
  kArriving,  // a download runs: what is missing will come
  kFailed,    // the download ended before the end of the file
  kComplete,  // the local copy is the file
};

// Told by `drainAll` for each file whose content could not be stored.
struct GMUndelivered {
  std::string path;     // below the volume's root
  std::string savedAs;  // the local path of the saved copy; empty when even that failed
  NSErrorRef error;     // why the server has not got it
};

// What programs on this system rely on beyond the required operations. Optional: a file system may implement
// it beside GMUserFileSystemDelegate, and the framework then uses it. Same rules for errors and threads.
class GMUserFileSystemDurability {
 public:
  virtual ~GMUserFileSystemDurability() = default;

  // Whether a release of the file, which has no other handle, and `trimCache` after it, would wait for no
  // server and have little to do.
  virtual bool releasesAtOnce(const GMUserData& /*userData*/) { return false; }
  // Makes sure that the server has the file as a whole; waits without a limit of its own. For fsync, for the
  // close of a written handle, and before a release. Nothing to do is success.
  virtual bool synchronizeFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) = 0;
  // Whether a file that was just made may not be on the server yet, nor ever come there: then its close
  // tells.
  virtual bool isCreationInDoubt(const GMUserData& /*userData*/) { return false; }
  // For fsync, after that: has the server bring the file to its disk, where it can be told to.
  virtual bool flushFileAtPath(OptionalPath /*path*/, const GMUserData& /*userData*/, NSErrorRef* /*error*/) {
    return true;
  }
  // For a read that ended before the promised size.
  virtual GMContentState contentStateOfFile(const GMUserData& userData) = 0;
  // Waits until the state of an arriving file changes, or more of it has arrived than `seen` bytes.
  virtual void waitForContent(const GMUserData& userData, uint64_t seen) = 0;
  // Mode and dates of a file that has no handles, without fetching its content. An open-file object may have
  // been prepared before.
  virtual bool changeAttributesWithoutContent(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                              NSErrorRef* error) = 0;
  // Gives the cache copy of a just opened file the mode and dates of its node, so that a write does not turn
  // them into those of a scratch file.
  virtual void seedCacheAttributesAtPath(OptionalPath path, const GMUserData& userData) = 0;
  // The file is about to be removed: it goes on serving its handles from the cache and uploads nothing more.
  virtual void abandonFile(const GMUserData& userData) = 0;
  // The removal has failed after all: undoes `abandonFile`.
  virtual void reclaimFile(const GMUserData& /*userData*/) {}
  // Size and dates of an abandoned file as its cache copy has them; absent when it cannot tell.
  virtual std::optional<NSFileAttributes> attributesOfAbandonedFile(const GMUserData& /*userData*/) {
    return {};
  }
  // Changes the size of an abandoned file's cache copy.
  virtual bool truncateAbandonedFile(const GMUserData& /*userData*/, int64_t /*offset*/,
                                     NSErrorRef* /*error*/) {
    return false;
  }
  // The open-file object of a path, if it has been prepared; null otherwise. Asks no server.
  virtual GMUserData openFileAtPathIfAny(OptionalPath path) = 0;
  // Before a move: what is being sent of the source reaches the server, and writes below it wait until
  // `movedItemAtPath` or `moveFailedAtPath`, one of which follows a success.
  virtual bool settleBeforeMoveAtPath(OptionalPath path, NSErrorRef* error) = 0;
  // The move did not happen.
  virtual void moveFailedAtPath(OptionalPath /*path*/) {}
  // After a move: open files below a moved folder learn their new paths.
  virtual void movedItemAtPath(OptionalPath path, OptionalPath toPath) = 0;
  // The entries of a folder byte for byte as the server lists them; each form of a name that is listed twice
  // comes once. As contentsOfDirectoryAtPath otherwise.
  virtual std::optional<std::vector<std::string>> namesAsListedAtPath(OptionalPath path,
                                                                      NSErrorRef* error) = 0;
  // `path` with each component replaced by the listed name that it matches in another Unicode form.
  virtual std::string listedPathForPath(std::string_view path) = 0;
  // The text of a link as far as it is known without asking the server: what stat tells the length of. As
  // destinationOfSymbolicLinkAtPath otherwise, but an absolute one may still be as the server has it.
  virtual std::optional<std::string> knownDestinationOfSymbolicLinkAtPath(OptionalPath /*path*/) {
    return {};
  }
  // The next open fetches the content again when the last download failed.
  virtual void forgetFailedContentAtPath(OptionalPath path) = 0;
  // Drops settled, covered cache copies without handles, oldest first, until the budget is kept.
  virtual void trimCache() = 0;
  // Ends running downloads and sends everything that is written; saves what cannot be sent. For unmount.
  virtual std::vector<GMUndelivered> drainAll() = 0;
  // Ends running downloads, also those that a read waits for: it fails. For unmount, again and again.
  virtual void endDownloads() {}
  // Grows while transfers move bytes: tells a slow server from one that does not answer.
  virtual uint64_t bytesMoved() { return 0; }
  // Nothing has moved for long: the running calls of the connection library fail soon. `drainAll` may follow.
  virtual void giveUpConnections() = 0;
};

// What the file system tells the framework on its own: what changed without a request of the kernel's.
class GMUserFileSystemInvalidation {
 public:
  virtual ~GMUserFileSystemInvalidation() = default;
  // The folder's entries and the attributes of what they name are asked for again. Any thread; never blocks.
  virtual void invalidateDirectoryAtPath(std::string_view path) = 0;
  // The attributes, and with `data` the cached pages, of one item.
  virtual void invalidateItemAtPath(std::string_view path, bool data) = 0;
};

}  // namespace ombra
