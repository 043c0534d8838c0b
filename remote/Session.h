// What a protocol engine gives the pool: sessions, and facts about its protocol.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileHandle.h"
#include "remote/KCCredentials.h"
#include "remote/KCTypes.h"
#include "remote/RareOptional.h"

namespace ombra {

// Where a link leads, told with the listing so that it need not be asked for one by one.
struct LinkResolution {
  bool resolved = false;     // false: the way there is a circle or too long
  std::string resolvedPath;  // in normal form; the final target where the server tells it at once
  bool isDirectory = false;
  bool exists = false;
  bool isFinal = true;  // false: resolvedPath may be a link itself, so that it has to be asked for again
  std::optional<NSFileAttributes> attributes;  // of the target, when it exists
};

// One entry of a listed folder. Many of them are alive at a time.
struct RemoteEntry {
  std::string name;  // the server's bytes; the pool drops ".", ".." and names with "/" or NUL
  uint32_t type = kNodeTypeFile;
  NSFileAttributes attributes;
  RareOptional<std::string> targetPath;     // of a link
  RareOptional<LinkResolution> resolution;  // of a link, when the engine fetched it with the listing
};

// A transfer as an engine sees it.
class TransferControl {
 public:
  virtual ~TransferControl() = default;
  // The file length reached on the receiving side, in bytes. May call out; engines hold no lock then. Called
  // for each piece; the pool thins it out to the agreed rate.
  virtual void progress(uint64_t bytesReached) = 0;
  // True when the transfer is to stop: the engine ends it and answers kQuarnKitCancelled. Asked for each
  // piece and at least every 100 ms, also while nothing arrives: what came in last is reported from there. On
  // the thread that called the session.
  virtual bool shouldCancel() const = 0;
  // Whether an upload of a scratch file may answer once all has been sent. What becomes of it is then told to
  // the file's UnconfirmedExtents, at the latest when the session becomes idle.
  virtual bool mayReturnEarly() const { return false; }
  // Where an engine puts off making files: whether that of the upload's path has not been made yet, and so
  // falls to the upload. From then on whoever would see the difference waits until the upload ends or
  // `newFileIsMade`. Asked before anything is sent that replaces the file; waits while it is being made.
  virtual bool takesOverNewFile() { return false; }
  // The upload has made it by itself, empty, ahead of the content.
  virtual void newFileIsMade() {}
  // What the server says of the file that the upload has just made, or emptied.
  virtual void newFileIsThere(const NSFileAttributes& /*attributes*/) {}
};

// Receives the conversation for the transcript. Thread-safe.
class SessionTranscript {
 public:
  virtual ~SessionTranscript() = default;
  // False when nobody keeps a transcript: then do not spend time on making lines.
  virtual bool isEnabled() const = 0;
  // One line or more, `isOutgoing` when they go to the server: secrets masked, no file contents, no marks of
  // direction. May call out; engines hold no lock then.
  virtual void append(std::string_view text, bool isOutgoing) = 0;
};

// What the engine needs from its surroundings while it logs in and works.
struct SessionEnvironment {
  std::shared_ptr<const KCCredentials> credentials;
  std::shared_ptr<SessionTranscript> transcript;  // never null
  // Asked with the fingerprint ("SHA256:…") of the server's key during login, after the check against the
  // credentials' "fingerprint", which the engine makes itself and which decides alone when it is given.
  std::function<bool(const std::string& fingerprint)> isWorthyTrust;
  std::chrono::milliseconds connectLimit{15000};  // for the whole of a login
  std::chrono::milliseconds idleLimit{30000};     // no byte in either direction for so long: lost
};

// One socket with its login. One thread at a time, except `interrupt`. Paths are absolute and in the server's
// bytes.
//
// An operation blocks for as long as the server takes, but not for one that is silent beyond the
// environment's limits, and is called with no lock but an open file's. It is one attempt: what may be
// repeated is repeated by the pool, on a fresh session, when the error is kQuarnKitConnectionLost or
// kQuarnKitTimedOut, after which this session is not used again.
//
// A failure is false or absent, with a library error in the slot, which may be null; the server's own words
// are beneath it or in its description. No other pointer is null but `version`, and what is behind the others
// counts after a success only.
class Session {
 public:
  virtual ~Session() = default;

  // Connects and logs in, within the connect limit; once. Besides the failures of connecting:
  // kQuarnKitLoginFailed, kQuarnKitUntrusted, and kQuarnKitTooManyConnections when the server may take the
  // same login as soon as it has fewer of them. After a failure the session is not used again.
  [[nodiscard]] virtual bool logIn(NSErrorRef* error) = 0;
  // The folder that the login landed in, in normal form. Valid after logIn.
  virtual std::string loginPath() const = 0;
  // A cheap look, without waiting, whether the connection still stands; for an idle session before reuse.
  virtual bool isAlive() = 0;
  // Whether this session is known to be of no use any more. Unlike isAlive no look, so that it costs nothing.
  virtual bool hasFailed() const { return false; }
  // Makes the running operation, and every later one, fail soon with kQuarnKitConnectionLost. Any thread;
  // waits for nothing.
  virtual void interrupt() = 0;
  // Nobody goes on with what is held between calls (an open remote handle): ends it, waiting for what the
  // server still has to say about it.
  virtual void becameIdle() {}
  // The path of the file that is held open for further uploads; empty when there is none.
  virtual std::string heldPath() const { return {}; }
  // Whether items are open that nobody has asked for yet, and their end, for which the server is waited for:
  // some servers neither move nor remove what is open.
  virtual bool hasOpenedAhead() const { return false; }
  virtual void closeOpenedAhead() {}

  // The absolute normal form of a path that may be relative to `base`, or begin with "~"; a folder or a file.
  // kQuarnKitNoSuchItem when nothing is there.
  virtual std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                              NSErrorRef* error) = 0;
  // As AbstractConnection::resolvePath, in as few round trips as the protocol needs. A circle and a link into
  // nowhere are answers; absent when the server does not tell.
  virtual std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) = 0;
  // Of what the path names, links followed; kQuarnKitNoSuchItem for one that leads nowhere, too.
  virtual std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                                     NSErrorRef* error) = 0;
  // systemSize and systemFreeSize of the volume at the path, in bytes; kQuarnKitNotSupported where that
  // cannot be told.
  virtual std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) = 0;
  // All that lies in a folder, in the server's order, but for the names of uploads that are under way.
  // `entries` is empty at first. kQuarnKitListingNotPermitted when the contents may not be read,
  // kQuarnKitNoSuchItem when there is no such folder.
  [[nodiscard]] virtual bool list(std::string_view path, std::vector<RemoteEntry>* entries,
                                  NSErrorRef* error) = 0;

  // kQuarnKitItemExists when something has the name already.
  [[nodiscard]] virtual bool createFolder(std::string_view path, NSErrorRef* error) = 0;
  // `target` becomes the link's text, unchanged. kQuarnKitNotSupported where there are no links.
  [[nodiscard]] virtual bool createSymbolicLink(std::string_view path, std::string_view target,
                                                NSErrorRef* error) = 0;
  // A file at `to` is replaced, or in the way, as the server has it: who wants it replaced removes it before.
  // A folder with something in it is never replaced. May take long: to some servers it is a copy.
  [[nodiscard]] virtual bool move(std::string_view from, bool isDirectory, std::string_view to,
                                  NSErrorRef* error) = 0;
  // Removes a file, a link (not its target) or an empty folder; kQuarnKitFolderNotEmpty for any other folder.
  [[nodiscard]] virtual bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) = 0;
  // Sets mode, owner, group and date of modification, those that are present.
  // kQuarnKitAttributeChangeNotSupported where there is no way to. A failure may come after some were set.
  [[nodiscard]] virtual bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                              NSErrorRef* error) = 0;

  // Writes the content from `offset` on, to its end, to the handle at the same offset, in order. `version` is
  // empty at first and then holds what the engine knows of the file's identity (tag, date, size): a later
  // call that resumes passes it again and fails with kQuarnKitItemChanged when the file is another one by
  // then. kQuarnKitCancelled, here and below, when `control` asked for that.
  [[nodiscard]] virtual bool download(std::string_view path, NSFileHandle& to, uint64_t offset,
                                      std::string* version, TransferControl& control, NSErrorRef* error) = 0;
  // Sends [offset, end) of the handle in place; from offset 0 the remote file ends as long as the handle's
  // file. Of a scratch handle only the unconfirmed extents are sent, and confirmed, besides what the server
  // turns out to lack; an ordinary one replaces the file from offset 0. What was not stored after all is
  // unconfirmed again.
  [[nodiscard]] virtual bool upload(NSFileHandle& from, std::string_view path, uint64_t offset,
                                    TransferControl& control, NSErrorRef* error) = 0;
  // Where the engine puts off making files: whether one may be made at the path at all, as far as that is
  // known, or can be found out, without making it. `mayWait`, false at first: nothing but the making itself
  // is to tell more.
  [[nodiscard]] virtual bool checkNewFile(std::string_view /*path*/, bool* /*mayWait*/,
                                          NSErrorRef* /*error*/) {
    return true;
  }
  // Makes an empty file, or empties the one that is there, after `checkNewFile`.
  [[nodiscard]] virtual bool makeFile(std::string_view /*path*/, NSErrorRef* /*error*/) { return false; }
  // Has the server bring the content of a file that was uploaded to its disk. Nothing to do, where the
  // protocol has no word for it, is success.
  [[nodiscard]] virtual bool flushFile(std::string_view /*path*/, NSErrorRef* /*error*/) { return true; }
  // Sends what `next` gives (bytes into the buffer, capacity; 0 ends) as the whole new content. `next` is
  // called on this thread and may block. A failure may leave a part of the content in the file.
  [[nodiscard]] virtual bool stream(const std::function<size_t(std::byte*, size_t)>& next,
                                    std::string_view path, TransferControl& control, NSErrorRef* error) = 0;
};

// A protocol. Stateless apart from what all sessions to one server share. Thread-safe.
class Engine {
 public:
  virtual ~Engine() = default;
  virtual uint32_t protocol() const = 0;
  virtual bool isSFTP() const { return false; }
  virtual bool isWebDAV() const { return false; }
  // Whether an upload may begin inside an existing file.
  virtual bool supportsUploadByteOffset() const = 0;
  // Whether what was made is there under the very name that it was given, so that its folder need not be
  // listed to know.
  virtual bool keepsNamesOfNewItems() const { return false; }
  // Whether an upload that makes a file has the server tell of it in the same round trip. Elsewhere the
  // server saying that it has made the file is all that is known of it: to ask once more would take each new
  // file a round trip longer.
  virtual bool looksAtNewFiles() const { return false; }
  // Whether making an empty file may wait a moment for its content, since a whole file comes with its content
  // in one request. Only where attributes of files cannot be changed.
  virtual bool putsOffNewFiles() const { return false; }
  // Whether what a program will come to on its walk is to be fetched ahead, on further sessions: where each
  // has one request under way at a time.
  virtual bool isAskedAhead() const { return false; }
  // The library's own cap on sessions to one server, at least 1.
  virtual int sessionCap() const = 0;
  // A session, never null; no traffic before logIn. It keeps a copy of the environment.
  virtual std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) = 0;
};

// The engines that this program was linked with, by protocol. Filled by the entry point before threads start.
class EngineRegistry {
 public:
  using Factory = std::shared_ptr<Engine> (*)(const KCCredentials& credentials);
  static void registerEngine(uint32_t protocol, Factory factory);
  // Null when no engine speaks that protocol.
  static std::shared_ptr<Engine> engineForCredentials(const KCCredentials& credentials);
};

}  // namespace ombra
