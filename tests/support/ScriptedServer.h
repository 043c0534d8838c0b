// A server in memory that answers what the test says: an AbstractConnection and KCConnectionPool pair.
//
//   ScriptedServer server;                        // protocol 'SFTP', login folder "/", an empty root
//   server.addFile("/docs/a.txt", "hello");       // folders on the way are made
//   fileSystem.setConnectionPool(server.pool());
//   ...
//   EXPECT_EQ(server.count("contentsAtPath"), 1u);
//   EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnection", "setDelegate delegate", ...));
//
// Errors, once or always, for one path or any:
//   server.fail("contentsAtPath", "/docs", QuarnKitError::errorWithCode(kQuarnKitListingNotPermitted));
//   server.failAlways("deleteItemAtPath", kAnyPath, error);
//   server.failAfter("downloadFileAtPath", "/docs/a.txt", 3, error);   // three bytes arrive, then the error
//
// Holds. A held call sleeps in the server until the test releases it; nothing in here waits for time to pass:
//   auto hold = server.hold("downloadFileAtPath", "/docs/a.txt");     // before its first byte
//   auto hold = server.hold("downloadFileAtPath", "/docs/a.txt", 2);  // two bytes have come, and were told
//   auto hold = server.hold("uploadFileHandle", kAnyPath, kAtEnd);    // all are there, not yet answered
//   std::thread reader(...);
//   hold->waitUntilHeld();  // the call is in there now
//   hold->release();
//
// Everything is thread-safe. Waits of the test (waitUntilHeld, waitForCalls, …) fail the test after 30 real
// seconds instead of hanging. Connections and the pool share the server's state, so that a detached worker
// may outlive the ScriptedServer object, whose destructor releases all holds.
//
// Operation names, with their arguments in order as texts (a flag is "1" or "0"):
//   acquireConnection | acquireConnectionWithTimeout TIMEOUT cancellation|none | releaseConnection |
//   shutDown | setMaximumConnections N | setDelegate delegate|none | setShouldCancel FLAG | loginPath |
//   connect | changeDir PATH | pwd | resolvePath PATH | attributesOfItemAtPath PATH |
//   fileSystemAttributesAtPath PATH | contentsAtPath PATH (all of them) | newsAtPath PATH |
//   createFolderAtPath PATH |
//   createSymbolicLinkAtPath PATH TARGET | moveItemFromPath FROM FLAG TO | deleteItemAtPath PATH FLAG |
//   changeAttributes PATH DESCRIPTION | downloadFileAtPath PATH OFFSET |
//   uploadFileAtPath TOPATH LOCALPATH OFFSET | uploadFileHandle TOPATH FILENAME OFFSET |
//   streamBytesWithFilename TOPATH FILENAME
// Questions for capabilities (isSFTP, supportsUploadByteOffset, protocol, UUID, displayString…) are not
// recorded.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "remote/KCConnectionPool.h"
#include "remote/QuarnKitError.h"

namespace ombra {

// Matches every path.
inline constexpr std::string_view kAnyPath = "*";
// A hold position: after the last byte, before the answer.
inline constexpr uint64_t kAtEnd = std::numeric_limits<uint64_t>::max();

// One call that the server received.
struct ScriptedCall {
  std::string name;
  std::vector<std::string> arguments;
  int connection = 0;  // number of the connection, from 1 in order of acquisition; 0 for calls of the pool
  std::thread::id thread;
  std::string threadName;  // NSThread::name() of the caller
  // The name and the arguments, separated by blanks.
  std::string text() const;
};

// One transfer: what was asked and what went over the wire.
struct ScriptedTransfer {
  std::string operation;
  std::string path;
  std::string name;  // the filename argument, or the local path of uploadFileAtPath
  uint64_t byteOffset = 0;
  std::string bytes;           // delivered or received so far, from byteOffset on
  std::vector<size_t> pieces;  // their sizes, in order; a stream's last one is 0 when its handler ended it
  // uploadFileHandle of a scratch handle: unconfirmed at the start, from byteOffset.
  std::vector<FileExtent> extents;
  bool finished = false;
  bool succeeded = false;
  NSErrorRef error;
};

// A place where calls sleep. Released at the latest by the server's destructor.
class ScriptedHold {
 public:
  virtual ~ScriptedHold() = default;
  // Blocks until `count` calls are held here. False, with a test failure, after 30 s.
  virtual bool waitUntilHeld(size_t count = 1) = 0;
  virtual size_t heldCount() const = 0;
  // Lets all held calls go on; later calls pass without stopping.
  virtual void release() = 0;
  // The held calls fail with `error` instead (null: fail without an error); later calls pass.
  virtual void releaseFailing(NSErrorRef error) = 0;
};

class ScriptedServer {
 public:
  explicit ScriptedServer(uint32_t protocol = kProtocolSFTP);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::shared_ptr<KCConnectionPool> pool() const;
  // Set the initial path, encoding, … here, before the pool is used.
  const std::shared_ptr<KCCredentials>& credentials() const;

  // --- capabilities; defaults: by the protocol, and upload offsets for 'SFTP' and 'FILE'
  void setIsSFTP(bool value);
  void setIsWebDAV(bool value);
  void setSupportsUploadByteOffset(bool value);
  // Whether who has a listing is told of what was made since, alone; false at first.
  void setTellsNews(bool value);

  // --- login. A connection has no login path until `connect` succeeded once in this pool.
  // What loginPath answers after that; absent: none even then. Default "/".
  void setLoginPath(std::optional<std::string> path);
  // As if a connection had logged in already.
  void setLoggedIn(bool loggedIn);
  // What pwd answers instead of the folder entered last (absent inside: none, with no error).
  void setPwd(std::optional<std::optional<std::string>> path);
  // acquireConnectionWithTimeout answers none (as after its time-out) while set.
  void setAcquisitionTimesOut(bool timesOut);
  // acquireConnection answers none while set.
  void setAcquisitionFails(bool fails);

  // --- the tree. Folders on the way are made. Existing items are replaced in place. Listings come in the
  // order in which items were added. Paths are absolute, in the server's bytes; default modes 0755/0644/0777,
  // default modification and creation date 2001-09-09 01:46:40 UTC.
  void addFolder(std::string_view path);
  void addFile(std::string_view path, std::string content);
  void addLink(std::string_view path, std::string target);
  void removeItem(std::string_view path);
  void setPermissions(std::string_view path, std::optional<uint16_t> mode);
  void setModificationDate(std::string_view path, std::optional<NSDate> date);
  void setCreationDate(std::string_view path, std::optional<NSDate> date);
  // A size in the listing that differs from the content's; absent: listed without a size.
  void setListedSize(std::string_view path, std::optional<uint64_t> size);
  // A hidden item is there for transfers, but neither listed nor found by its attributes. May not exist yet.
  void setHidden(std::string_view path, bool hidden);
  // Volume size and free space; absent (the default): the protocol cannot tell, kQuarnKitNotSupported.
  void setFileSystemAttributes(std::optional<NSFileAttributes> attributes);
  bool exists(std::string_view path) const;
  // Whether the last listing, or download, might have been one that was fetched ahead.
  bool lastTookAhead() const;
  // Absent when there is no such file.
  std::optional<std::string> content(std::string_view path) const;
  std::optional<std::string> linkTarget(std::string_view path) const;
  // Of the item itself.
  std::optional<NSFileAttributes> attributes(std::string_view path) const;
  std::vector<std::string> list(std::string_view folder) const;

  // --- errors. `error` may be null: the operation then fails without filling the slot. Injected errors are
  // looked up before the tree is asked; those for `once` first, oldest first.
  void fail(std::string_view operation, std::string_view path, NSErrorRef error);
  void failAlways(std::string_view operation, std::string_view path, NSErrorRef error);
  // The transfer fails, once, when it has moved `bytes` bytes (counted from its offset).
  void failAfter(std::string_view operation, std::string_view path, uint64_t bytes, NSErrorRef error);
  // The operation does its work, succeeds, and fills its error slot all the same; always.
  void succeedWithError(std::string_view operation, std::string_view path, NSErrorRef error);
  void stopFailing();

  // --- holds. `position`: 0 = before anything is done; for transfers also a count of bytes moved, or kAtEnd.
  // Cancelling a transfer and shutting the pool down end the hold of that call (then with the matching
  // error).
  [[nodiscard]] std::shared_ptr<ScriptedHold> hold(std::string_view operation,
                                                   std::string_view path = kAnyPath, uint64_t position = 0);

  // --- transfers
  // Bytes per delivered piece of a download, and per piece of an upload that is reported. Default 65,536.
  void setChunkSize(size_t bytes);
  // Capacity of the buffer given to the streamBytes callback. Default 32,768.
  void setStreamCapacity(size_t bytes);
  // Reports the count so far to the delegate of each running transfer of `path`, on the calling thread: as a
  // transfer that stalls would. Use it while the transfer is held, so that it stays where it is.
  void reportProgress(std::string_view path);
  // All transfers so far, in the order in which they began; those of one operation when named.
  std::vector<ScriptedTransfer> transfers(std::string_view operation = {}) const;
  // Blocks until `count` transfers of the operation have finished. False, with a test failure, after 30 s.
  bool waitForTransfers(std::string_view operation, size_t count);

  // --- own answers. Called instead of the tree (after injected errors and holds), without any lock, on the
  // calling thread. An empty function restores the tree.
  using FlagHandler = std::function<bool(std::string_view path, NSErrorRef* error)>;
  using ResolveHandler =
      std::function<bool(std::string_view path, std::string* resolved, bool* isDirectory, NSErrorRef* error)>;
  using AttributesHandler = std::function<std::optional<NSFileAttributes>(
      std::string_view path, bool* isDirectory, NSErrorRef* error)>;
  using ContentsHandler = std::function<bool(
      std::string_view path, std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes, NSErrorRef* error)>;
  void setChangeDirHandler(FlagHandler handler);
  void setResolvePathHandler(ResolveHandler handler);
  void setAttributesHandler(AttributesHandler handler);
  void setContentsHandler(ContentsHandler handler);
  // Called at the start of each recorded call, without any lock, on the calling thread: to look at the
  // caller's state.
  void setObserver(std::function<void(const ScriptedCall& call)> observer);

  // --- what was called
  std::vector<ScriptedCall> calls() const;
  std::vector<ScriptedCall> calls(std::string_view name) const;
  // text() of each call; without those named in `except`.
  std::vector<std::string> callTexts(const std::vector<std::string>& except = {}) const;
  size_t count(std::string_view name) const;
  void clearCalls();
  // Blocks until the operation was called `count` times (since clearCalls). False, with a test failure, after
  // 30 s.
  bool waitForCalls(std::string_view name, size_t count);
  // Acquired (by either way) and released so far. A release of what is not held fails the test.
  size_t acquireCount() const;
  size_t releaseCount() const;
  // Connections that are out at the moment.
  size_t heldConnections() const;
  bool waitUntilAllReleased();
  int maximumConnections() const;  // -1 until set

  // --- transcript
  TranscriptDelegate* transcriptDelegate() const;
  // As a connection would: appends to, or flushes, the transcript delegate's log. Nothing without one.
  void appendTranscript(std::string_view text, bool isOutgoing);
  void flushTranscript();

  class State;

 private:
  const std::shared_ptr<State> iState;
};

}  // namespace ombra
