// One open remote file: its local cache file, its transfer state, and the workers that keep the two in step.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "remote/AbstractConnection.h"
#include "remote/KCConnectionPool.h"

namespace ombra {

// The base of every timed wait, in seconds (60). Tests scale it.
extern std::atomic<double> gHardLimit;
// Whether sequential writes are streamed; false for the rest of the process once a stream could not be started.
extern std::atomic<bool> gStreamingSupported;
// Whether written data is uploaded at all where the server cannot write at an offset.
extern std::atomic<bool> gUploadingSupported;

// The interface to the rest of the program; the class is declared below with its fields.
class OFSRemoteFile final : public GMOpenFile,
                            public ConnectionDelegate,
                            public std::enable_shared_from_this<OFSRemoteFile> {
 public:
  // All ones: the mark in bytesRequired that makes every transfer stop.
  static constexpr uint64_t kCancelMark = ~uint64_t{0};

  // A new object for a server path.
  static std::shared_ptr<OFSRemoteFile> remoteFileForPath(std::string path);
  // A path in the per-user temporary folder that names no file.
  static std::string uniquePath();

  explicit OFSRemoteFile(std::string path);
  ~OFSRemoteFile() override;

  std::shared_ptr<KCConnectionPool> connectionPool() const;
  void setConnectionPool(std::shared_ptr<KCConnectionPool> pool);
  std::string remotePath() const;
  void setRemotePath(std::string path);
  const std::string& localPath() const { return iLocalPath; }
  uint16_t mode() const;

  // As openFileAtPath of the delegate; `mode` holds InterfaceOpenFlags.
  bool openWithMode(uint32_t mode, NSErrorRef* error);
  bool isOpen() const;
  NSFileAttributes attributes();
  bool setAttributes(const NSFileAttributes& attributes, NSErrorRef* error);
  NSData data();
  void close();
  int _readToBuffer(void* buffer, size_t size, int64_t offset, NSErrorRef* error);
  int _writeFromBuffer(const void* buffer, size_t size, int64_t offset, NSErrorRef* error);
  bool _truncateToOffset(int64_t offset, NSErrorRef* error);

  // Durability: the ledger of local changes and what the server has confirmed as a whole.
  bool synchronize(NSErrorRef* error);
  GMContentState contentState();
  void waitForContent(uint64_t seen);
  void seedCacheAttributes(const NSFileAttributes& attributes);
  void abandon();
  // True when nothing written is missing on the server and no transfer runs.
  bool isCovered();
  bool downloadFailed();
  // Asks a running download (only that) to stop, for unmount.
  void cancelDownload();
  // Copies the cache file to a local path, for content that could not be sent. False with errno set.
  bool saveContentAs(const std::string& path);
  uint64_t cacheSize();

  bool connection(AbstractConnection& connection, const TrustQuestion& isWorthyTrust) override;
  void connection(AbstractConnection& connection, uint64_t transferredBytes, double throughput, bool stalled) override;
  size_t connection(AbstractConnection& connection, std::byte* streamBytes, size_t length) override;

 private:
  const std::string iLocalPath;
};

}  // namespace ombra
