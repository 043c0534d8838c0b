// The requests of the file protocol.
#pragma once

#include <cstdint>
#include <string_view>

#include "remote/sftp/SFTPAttributes.h"
#include "remote/sftp/SFTPChannel.h"

namespace ombra {

// Encodes requests and queues them on a channel; none of them waits. The number of the request is the answer.
// One thread at a time.
class SFTPRequests {
 public:
  explicit SFTPRequests(SFTPChannel& channel) : iChannel(channel) {}

  uint32_t open(std::string_view path, uint32_t flags);
  uint32_t opendir(std::string_view path);
  uint32_t close(std::string_view handle);
  uint32_t read(std::string_view handle, uint64_t offset, size_t length);
  uint32_t readdir(std::string_view handle);
  uint32_t stat(std::string_view path);
  uint32_t lstat(std::string_view path);
  uint32_t fstat(std::string_view handle);
  uint32_t setstat(std::string_view path, const SFTPAttributes& attributes);
  uint32_t fsetstat(std::string_view handle, const SFTPAttributes& attributes);
  uint32_t realpath(std::string_view path);
  uint32_t readlink(std::string_view path);
  uint32_t mkdir(std::string_view path);
  uint32_t rmdir(std::string_view path);
  uint32_t remove(std::string_view path);
  uint32_t rename(std::string_view from, std::string_view to);
  // In OpenSSH's argument order: its server, and those that follow it, swapped the draft's two paths.
  uint32_t symlink(std::string_view target, std::string_view linkPath);

  // OpenSSH's extensions; only after the channel has told that the server has them.
  uint32_t posixRename(std::string_view from, std::string_view to);
  uint32_t statvfs(std::string_view path);
  uint32_t fsync(std::string_view handle);
  uint32_t limits();
  uint32_t expandPath(std::string_view path);
  uint32_t lsetstat(std::string_view path, const SFTPAttributes& attributes);

 private:
  uint32_t onePath(uint8_t type, const char* name, std::string_view path);
  uint32_t onHandle(uint8_t type, const char* name, std::string_view handle);
  uint32_t change(uint8_t type, const char* name, std::string_view target, bool isHandle,
                  const SFTPAttributes& attributes);
  uint32_t twoPaths(uint8_t type, const char* name, std::string_view first, std::string_view second);
  SFTPPacketWriter extended(std::string_view name);

  SFTPChannel& iChannel;
};

}  // namespace ombra
