#include "remote/sftp/SFTPRequests.h"

#include <fmt/format.h>

#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPTranscript.h"

namespace ombra {

namespace {

std::string describe(const SFTPAttributes& attributes) {
  std::string text;
  if (attributes.size) text += fmt::format(" size={}", *attributes.size);
  if (attributes.owner) text += fmt::format(" owner={}:{}", attributes.owner->user, attributes.owner->group);
  if (attributes.permissions) text += fmt::format(" mode={:04o}", *attributes.permissions);
  if (attributes.times) text += fmt::format(" mtime={}", attributes.times->modification);
  return text;
}

// Handles are bytes of the server's choosing, mostly small numbers.
std::string describeHandle(std::string_view handle) {
  std::string text;
  for (const char c : handle.substr(0, 16)) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return text;
}

}  // namespace

uint32_t SFTPRequests::onePath(uint8_t type, const char* name, std::string_view path) {
  SFTPPacketWriter writer = iChannel.begin(type);
  writer.string(path);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("{} {}", name, sftpQuoted(path)); });
  return id;
}

uint32_t SFTPRequests::onHandle(uint8_t type, const char* name, std::string_view handle) {
  SFTPPacketWriter writer = iChannel.begin(type);
  writer.string(handle);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("{} handle={}", name, describeHandle(handle)); });
  return id;
}

uint32_t SFTPRequests::change(uint8_t type, const char* name, std::string_view target, bool isHandle,
                              const SFTPAttributes& attributes) {
  SFTPPacketWriter writer = iChannel.begin(type);
  writer.string(target);
  writeSFTPAttributes(writer, attributes);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] {
    const std::string what = isHandle ? "handle=" + describeHandle(target) : sftpQuoted(target);
    return fmt::format("{} {}{}", name, what, describe(attributes));
  });
  return id;
}

uint32_t SFTPRequests::twoPaths(uint8_t type, const char* name, std::string_view first,
                                std::string_view second) {
  SFTPPacketWriter writer = iChannel.begin(type);
  writer.string(first).string(second);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("{} {} {}", name, sftpQuoted(first), sftpQuoted(second)); });
  return id;
}

SFTPPacketWriter SFTPRequests::extended(std::string_view name) {
  SFTPPacketWriter writer = iChannel.begin(kSFTPExtended);
  writer.string(name);
  return writer;
}

uint32_t SFTPRequests::open(std::string_view path, uint32_t flags) {
  SFTPPacketWriter writer = iChannel.begin(kSFTPOpen);
  writer.string(path).u32(flags);
  // No attributes: a new file gets the mode that the account's umask gives.
  writeSFTPAttributes(writer, {});
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id,
                [&] { return fmt::format("open {} flags={}", sftpQuoted(path), sftpOpenFlagsText(flags)); });
  return id;
}

uint32_t SFTPRequests::read(std::string_view handle, uint64_t offset, size_t length) {
  SFTPPacketWriter writer = iChannel.begin(kSFTPRead);
  writer.string(handle).u64(offset).u32(static_cast<uint32_t>(length));
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] {
    return fmt::format("read handle={} offset={} length={}", describeHandle(handle), offset, length);
  });
  return id;
}

uint32_t SFTPRequests::opendir(std::string_view path) { return onePath(kSFTPOpendir, "opendir", path); }
uint32_t SFTPRequests::close(std::string_view handle) { return onHandle(kSFTPClose, "close", handle); }
uint32_t SFTPRequests::readdir(std::string_view handle) { return onHandle(kSFTPReaddir, "readdir", handle); }
uint32_t SFTPRequests::stat(std::string_view path) { return onePath(kSFTPStat, "stat", path); }
uint32_t SFTPRequests::lstat(std::string_view path) { return onePath(kSFTPLstat, "lstat", path); }
uint32_t SFTPRequests::fstat(std::string_view handle) { return onHandle(kSFTPFstat, "fstat", handle); }
uint32_t SFTPRequests::realpath(std::string_view path) { return onePath(kSFTPRealpath, "realpath", path); }
uint32_t SFTPRequests::readlink(std::string_view path) { return onePath(kSFTPReadlink, "readlink", path); }
uint32_t SFTPRequests::rmdir(std::string_view path) { return onePath(kSFTPRmdir, "rmdir", path); }
uint32_t SFTPRequests::remove(std::string_view path) { return onePath(kSFTPRemove, "remove", path); }

uint32_t SFTPRequests::mkdir(std::string_view path) { return change(kSFTPMkdir, "mkdir", path, false, {}); }

uint32_t SFTPRequests::setstat(std::string_view path, const SFTPAttributes& attributes) {
  return change(kSFTPSetstat, "setstat", path, false, attributes);
}

uint32_t SFTPRequests::fsetstat(std::string_view handle, const SFTPAttributes& attributes) {
  return change(kSFTPFsetstat, "fsetstat", handle, true, attributes);
}

uint32_t SFTPRequests::rename(std::string_view from, std::string_view to) {
  return twoPaths(kSFTPRename, "rename", from, to);
}

uint32_t SFTPRequests::symlink(std::string_view target, std::string_view linkPath) {
  return twoPaths(kSFTPSymlink, "symlink", target, linkPath);
}

uint32_t SFTPRequests::posixRename(std::string_view from, std::string_view to) {
  SFTPPacketWriter writer = extended("posix-rename@openssh.com");
  writer.string(from).string(to);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("posix-rename {} {}", sftpQuoted(from), sftpQuoted(to)); });
  return id;
}

uint32_t SFTPRequests::statvfs(std::string_view path) {
  SFTPPacketWriter writer = extended("statvfs@openssh.com");
  writer.string(path);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("statvfs {}", sftpQuoted(path)); });
  return id;
}

uint32_t SFTPRequests::fsync(std::string_view handle) {
  SFTPPacketWriter writer = extended("fsync@openssh.com");
  writer.string(handle);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("fsync handle={}", describeHandle(handle)); });
  return id;
}

uint32_t SFTPRequests::limits() {
  SFTPPacketWriter writer = extended("limits@openssh.com");
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [] { return std::string("limits"); });
  return id;
}

uint32_t SFTPRequests::expandPath(std::string_view path) {
  SFTPPacketWriter writer = extended("expand-path@openssh.com");
  writer.string(path);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("expand-path {}", sftpQuoted(path)); });
  return id;
}

uint32_t SFTPRequests::lsetstat(std::string_view path, const SFTPAttributes& attributes) {
  SFTPPacketWriter writer = extended("lsetstat@openssh.com");
  writer.string(path);
  writeSFTPAttributes(writer, attributes);
  const uint32_t id = iChannel.submit(writer);
  iChannel.note(id, [&] { return fmt::format("lsetstat {}{}", sftpQuoted(path), describe(attributes)); });
  return id;
}

}  // namespace ombra
