// One logged-in connection to the server, as the program sees it, and the callbacks that the program answers.
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
#include "platform/foundation/NSFileHandle.h"
#include "remote/KCNode.h"
#include "remote/KCUUID.h"

namespace ombra {

class AbstractConnection;

// Text of a host key or certificate that a session has met: "SHA256:…" of it.
struct TrustQuestion {
  std::string fingerprint;
};

// What a connection asks and tells while it works. Called on the thread that called the connection.
class ConnectionDelegate {
 public:
  virtual ~ConnectionDelegate() = default;
  // connection:isWorthyTrust: — whether to go on with a server that shows this key.
  virtual bool connection(AbstractConnection& connection, const TrustQuestion& isWorthyTrust) = 0;
  // connection:transferredBytes:throughput:stalled: — progress of a transfer: bytes so far, counted from the
  // transfer's byte offset 0 (so a resumed download goes on counting), bytes per second, whether nothing
  // moves.
  virtual void connection(AbstractConnection&, uint64_t /*transferredBytes*/, double /*throughput*/,
                          bool /*stalled*/) {}
  // Whether somebody waits for what the running download brings. One that nobody waits for gives way when
  // others wait for a session: it pauses, and resumes at the byte that it reached. Asked again and again, no
  // lock held.
  virtual bool connectionIsAwaited(AbstractConnection&) { return true; }
  // connection:streamBytes:length: — the next bytes of a streamed upload into `streamBytes` (capacity
  // `length`). The count, 0 for the end.
  virtual size_t connection(AbstractConnection&, std::byte* /*streamBytes*/, size_t /*length*/) { return 0; }
};

// Receives the protocol transcript. Called from whichever thread works on a connection.
class TranscriptDelegate {
 public:
  virtual ~TranscriptDelegate() = default;
  // One piece of the conversation with its own line ends; `isOutgoing` for what was sent to the server.
  virtual void connectionUUID(const KCUUID& uuid, std::string_view appendTranscript, bool isOutgoing) = 0;
  virtual void connectionUUIDFlushTranscript(const KCUUID& uuid) = 0;
};

// A folder's contents, or what is new in them.
struct FolderContents {
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  // False: `nodes` is what was made, through the pool, since the listing that the caller has. Of the rest he
  // is not told: it was as he knows it a moment ago, but for what he has moved and removed himself.
  bool isWhole = true;
  // Of this listing, to be named at the next call; 0 when there is nothing to be gained by that.
  uint64_t number = 0;
};

// A logical connection. All operations block, on the calling thread, for a bounded time. One thread uses it
// at a time: the holder owns it between acquisition and release; only `setShouldCancel` may come from another
// thread. Paths are the server's, in its bytes, absolute unless said otherwise. Each operation with an error
// slot fills it with a library error when it fails (result false or absent) and only then; the slot may be
// null.
class AbstractConnection {
 public:
  virtual ~AbstractConnection() = default;

  // Whether the protocol is Amazon S3.
  static bool isS3(uint32_t protocol);
  virtual uint32_t protocol() const = 0;
  // What the protocol can do; needs no session.
  virtual bool isSFTP() const = 0;
  virtual bool isWebDAV() const = 0;
  // Whether an upload may start at a byte offset inside an existing file.
  virtual bool supportsUploadByteOffset() const = 0;
  virtual const KCUUID& UUID() const = 0;

  // Not owned, may be null; must outlive its time on the connection.
  virtual void setDelegate(ConnectionDelegate* delegate) = 0;
  virtual ConnectionDelegate* delegate() const = 0;
  // The folder that the server put the login in; absent until this connection, or another one of its pool,
  // has logged in.
  virtual std::optional<std::string> loginPath() const = 0;
  // Logs in, within the library's connect limit.
  [[nodiscard]] virtual bool connect(NSErrorRef* error) = 0;
  // Changes and reads the current folder. "~" and "~user" are understood where the protocol has homes. `pwd`
  // and `resolvePath` answer in one normal form (absolute, no "." or "..", no doubled or trailing "/").
  [[nodiscard]] virtual bool changeDir(std::string_view path, NSErrorRef* error) = 0;
  virtual std::optional<std::string> pwd(NSErrorRef* error) = 0;
  // Follows a link. A path that is no link, or does not exist, is answered itself; a circle is a failure.
  // `resolvedPath` and `isDirectory` may be null.
  [[nodiscard]] virtual bool resolvePath(std::string_view path, std::string* resolvedPath, bool* isDirectory,
                                         NSErrorRef* error) = 0;
  // Attributes of what the path names, links followed. `isDirectory` may be null.
  virtual std::optional<NSFileAttributes> attributesOfItemAtPath(std::string_view path, bool* isDirectory,
                                                                 NSErrorRef* error) = 0;
  // systemSize and systemFreeSize in bytes; absent where the protocol cannot tell.
  virtual std::optional<NSFileAttributes> fileSystemAttributesAtPath(std::string_view path,
                                                                     NSErrorRef* error) = 0;
  // Lists a folder: a folder node per folder, a file node per file or link, in the server's order. Names with
  // "/" or NUL, "." and ".." never come. Code 9 when the contents may not be read, 14 when there is no such
  // folder.
  [[nodiscard]] virtual bool contentsAtPath(std::string_view path,
                                            std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                            NSErrorRef* error) = 0;
  // The same for who has the listing `known` of the folder (the number that came with it; 0: none, or one
  // that must not be relied on). Where that is a moment old and something was made in the folder since, what
  // the server says of that alone is answered, which costs the same however much the folder holds.
  [[nodiscard]] virtual bool contentsAtPath(std::string_view path, uint64_t known, FolderContents* contents,
                                            NSErrorRef* error);

  // Code 109 when something has the name already.
  [[nodiscard]] virtual bool createFolderAtPath(std::string_view path, NSErrorRef* error) = 0;
  // `resolvingToPath` is stored as the link's text, unchanged.
  [[nodiscard]] virtual bool createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                                      NSErrorRef* error) = 0;
  // A file at `toPath` is replaced, or in the way, as the server has it; a folder with something in it is
  // never replaced.
  [[nodiscard]] virtual bool moveItemFromPath(std::string_view path, bool isDirectory,
                                              std::string_view toPath, NSErrorRef* error) = 0;
  // Removes a file, a link (not its target) or an empty folder.
  [[nodiscard]] virtual bool deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) = 0;
  // Sets the mode, owner, group and dates that `attributes` holds. Code 17 where that cannot be done.
  [[nodiscard]] virtual bool changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                                              NSErrorRef* error) = 0;

  // Writes the remote content from `byteOffset` into the handle, in order, never beyond what has arrived.
  // `bytesTransferred` (may be null) is the file length reached, also on failure.
  [[nodiscard]] virtual bool downloadFileAtPath(std::string_view path, NSFileHandle& toFileHandle,
                                                uint64_t byteOffset, uint64_t* bytesTransferred,
                                                NSErrorRef* error) = 0;
  // Sends the local file from `byteOffset` to its end to the remote path. From offset 0 the remote file is
  // replaced and ends as long as the local one. `bytesTransferred` as above.
  [[nodiscard]] virtual bool uploadFileAtPath(const std::string& localPath, std::string_view toPath,
                                              uint64_t byteOffset, uint64_t* bytesTransferred,
                                              NSErrorRef* error) = 0;
  // As above from an open handle. From an offset, what the server has confirmed is not sent again.
  // `withFilename` is the display form, for the transcript alone.
  [[nodiscard]] virtual bool uploadFileHandle(NSFileHandle& fileHandle, std::string_view withFilename,
                                              std::string_view toPath, uint64_t byteOffset,
                                              uint64_t* bytesTransferred, NSErrorRef* error) = 0;
  // Whether uploads of a scratch handle may answer as soon as everything has been sent, or is on its way
  // without the caller's help. What the server says to it later is told by a later upload from the handle,
  // and by finishUploads. Off at first.
  virtual void setWritesBehind(bool /*writesBehind*/) {}
  // Whether the upload of an empty scratch handle makes a new file, which mostly has its content at once: it
  // may then answer before the server has been told. To all connections of the pool the file is there all the
  // same, and to everybody else after a second. A failure is told as above. Off at first.
  virtual void setPutsOffNewFiles(bool /*putsOffNewFiles*/) {}
  // Whether a listing, or a whole small file, may be one that was fetched ahead: as the server had it up to a
  // second before the call, but for what was changed through this pool. Off at first.
  virtual void setTakesAhead(bool /*takesAhead*/) {}
  // Waits until the server has acknowledged everything that was uploaded from a scratch handle, and has
  // closed the file. False when any of it failed and no upload has told so; what is not stored is unconfirmed
  // again.
  [[nodiscard]] virtual bool finishUploads(NSFileHandle& fileHandle, std::string_view toPath,
                                           NSErrorRef* error);
  // Has the server bring the content of a file that was uploaded to its disk, where the protocol has a word
  // for that; else nothing.
  [[nodiscard]] virtual bool flushFileAtPath(std::string_view /*path*/, NSErrorRef* /*error*/) {
    return true;
  }
  // Sends what the handler's streamBytes callback gives until it gives 0. The remote file is replaced.
  [[nodiscard]] virtual bool streamBytesWithFilename(std::string_view filename, std::string_view toPath,
                                                     ConnectionDelegate& handler, NSErrorRef* error) = 0;
  // Asks the running transfer to stop: it ends soon, false, with kQuarnKitCancelled. Cleared when a transfer
  // begins. Thread-safe.
  virtual void setShouldCancel(bool shouldCancel) = 0;

  // The form of a remote name that is shown to the user.
  virtual std::string displayStringForRemoteString(std::string_view bytes) const = 0;
};

}  // namespace ombra
