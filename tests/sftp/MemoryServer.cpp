#include "tests/sftp/MemoryServer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPAttributes.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra::test {

namespace {

std::string attributesOf(const MemoryServer::Item& item) {
  return attrs(item.mode, item.content.size(), item.date);
}

bool isLink(const MemoryServer::Item& item) { return (item.mode & 0170000) == 0120000; }
bool isFolder(const MemoryServer::Item& item) { return (item.mode & 0170000) == 0040000; }

}  // namespace

MemoryServer::MemoryServer() {
  extensions = {{"posix-rename@openssh.com", "1"}, {"statvfs@openssh.com", "2"},
                {"fstatvfs@openssh.com", "2"},     {"hardlink@openssh.com", "1"},
                {"fsync@openssh.com", "1"},        {"lsetstat@openssh.com", "1"},
                {"limits@openssh.com", "1"},       {"expand-path@openssh.com", "1"}};
  addFolder("/");
  addFolder("/home");
  addFolder("/home/user");
}

void MemoryServer::addFile(const std::string& path, std::string content, uint32_t date) {
  iItems[path] = {0100644, std::move(content), date};
}
void MemoryServer::addFolder(const std::string& path) { iItems[path] = {0040755, "", 1000}; }
void MemoryServer::addLink(const std::string& path, std::string target) {
  iItems[path] = {0120777, std::move(target), 1000};
}

void MemoryServer::replace(const std::string& path, std::string content, uint32_t date) {
  const std::string old = fmt::format("/replaced{}", iItems.size());
  iItems[old] = iItems[path];
  for (auto& [name, handle] : iHandles) {
    if (handle.path == path) handle.path = old;
  }
  addFile(path, std::move(content), date);
}

const MemoryServer::Item* MemoryServer::item(const std::string& path) const {
  const auto found = iItems.find(path);
  return found != iItems.end() ? &found->second : nullptr;
}

std::string MemoryServer::content(const std::string& path) const {
  const Item* found = item(path);
  if (found == nullptr) ADD_FAILURE() << path << " is not on the server";
  return found != nullptr ? found->content : "";
}

void MemoryServer::handle(const PeerRequest& request, PeerTransport& transport) {
  if (before) before(request);
  if (request.type == kSFTPInit) {
    transport.send(versionReply(extensions));
    return;
  }
  const auto refusal = refusals.find(request.type);
  const bool refused = refusal != refusals.end() && iSeen[request.type]++ >= refusal->second.second;
  iHeld.push_back(refused ? statusReply(request.id, refusal->second.first, refusalText) : answer(request));
  if (iHeld.size() >= batch) flush(transport);
}

void MemoryServer::flush(PeerTransport& transport) {
  if (batch > 1) std::reverse(iHeld.begin(), iHeld.end());
  for (const std::string& reply : std::exchange(iHeld, {})) transport.send(reply);
}

std::string MemoryServer::answer(const PeerRequest& request) {
  SFTPPacketReader reader(std::as_bytes(std::span(request.body.data(), request.body.size())));
  const uint32_t id = request.id;
  switch (request.type) {
    case kSFTPOpen:
      return open(id, reader);
    case kSFTPRead:
      return read(id, reader);
    case kSFTPWrite:
      return write(id, reader);
    case kSFTPExtended:
      return extended(id, reader);
    case kSFTPClose:
    case kSFTPReaddir:
    case kSFTPFstat:
    case kSFTPFsetstat:
      return answerToHandle(request, reader);
    case kSFTPMkdir:
    case kSFTPRmdir:
    case kSFTPRemove:
    case kSFTPRename:
    case kSFTPSymlink:
      return changeNames(request, reader);
    default:
      return answerToPath(request, reader);
  }
}

std::string MemoryServer::answerToHandle(const PeerRequest& request, SFTPPacketReader& reader) {
  const uint32_t id = request.id;
  const std::string handle(reader.string());
  if (request.type == kSFTPReaddir) return readdir(id, handle);
  if (request.type == kSFTPClose) {
    return statusReply(id, iHandles.erase(handle) > 0 ? kSFTPStatusOK : kSFTPStatusFailure);
  }
  if (!iHandles.contains(handle)) return statusReply(id, kSFTPStatusFailure, "Failure");
  const std::string path = iHandles[handle].path;
  return request.type == kSFTPFstat ? attributesReply(id, path) : setAttributes(id, path, reader);
}

std::string MemoryServer::takePath(SFTPPacketReader& reader) const {
  const std::string path(reader.string());
  return path.starts_with('/') && path.size() > 1 ? followWay(path) : path;
}

std::string MemoryServer::changeNames(const PeerRequest& request, SFTPPacketReader& reader) {
  const uint32_t id = request.id;
  if (request.type == kSFTPSymlink) {
    const std::string target(reader.string());
    const std::string link(reader.string());
    if (iItems.contains(link)) return statusReply(id, kSFTPStatusFailure, "Failure");
    addLink(link, target);
    return statusReply(id, kSFTPStatusOK);
  }
  const std::string path = takePath(reader);
  if (request.type == kSFTPRename) return rename(id, path, std::string(reader.string()), false);
  const auto found = iItems.find(path);
  if (request.type == kSFTPMkdir) {
    if (found != iItems.end()) return statusReply(id, kSFTPStatusFailure, "Failure");
    addFolder(path);
    return statusReply(id, kSFTPStatusOK);
  }
  if (found == iItems.end()) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
  if (isFolder(found->second) != (request.type == kSFTPRmdir) || hasChildren(path)) {
    return statusReply(id, kSFTPStatusFailure, "Failure");
  }
  iItems.erase(found);
  return statusReply(id, kSFTPStatusOK);
}

std::string MemoryServer::answerToPath(const PeerRequest& request, SFTPPacketReader& reader) {
  const uint32_t id = request.id;
  const std::string path = takePath(reader);
  switch (request.type) {
    case kSFTPOpendir:
      return opendir(id, path);
    case kSFTPLstat:
      return attributesReply(id, path);
    case kSFTPStat:
    case kSFTPSetstat: {
      uint32_t status = 0;
      const auto target = follow(path, &status);
      if (!target) return statusReply(id, status, "No such file");
      return request.type == kSFTPStat ? attributesReply(id, *target) : setAttributes(id, *target, reader);
    }
    case kSFTPRealpath:
      return realpath(id, path == "." ? "/home/user" : path);
    case kSFTPReadlink: {
      const auto found = iItems.find(path);
      if (found == iItems.end()) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
      return isLink(found->second) ? nameReply(id, found->second.content)
                                   : statusReply(id, kSFTPStatusBadMessage, "Bad message");
    }
    default:
      return statusReply(id, kSFTPStatusOpUnsupported, "Operation unsupported");
  }
}

std::string MemoryServer::open(uint32_t id, SFTPPacketReader& reader) {
  const std::string path(reader.string());
  const uint32_t flags = reader.u32();
  if (forbidden.contains(path)) return statusReply(id, kSFTPStatusPermissionDenied, "Permission denied");
  if (((flags & kSFTPOpenRead) && unreadable.contains(path)) ||
      ((flags & kSFTPOpenWrite) && unwritable.contains(path))) {
    return statusReply(id, kSFTPStatusPermissionDenied, "Permission denied");
  }
  if (!iItems.contains(path)) {
    if (!(flags & kSFTPOpenCreate)) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
    addFile(path, "");
  }
  if (flags & kSFTPOpenTruncate) iItems[path].content.clear();
  const std::string handle = fmt::format("h{}", ++iLastHandle);
  iHandles[handle] = {path, false, 0};
  return handleReply(id, handle);
}

std::string MemoryServer::opendir(uint32_t id, const std::string& path) {
  uint32_t status = 0;
  const auto real = follow(path, &status);
  if (!real) return statusReply(id, status, "No such file");
  if (forbidden.contains(*real)) return statusReply(id, kSFTPStatusPermissionDenied, "Permission denied");
  if (!isFolder(iItems[*real])) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
  const std::string handle = fmt::format("d{}", ++iLastHandle);
  iHandles[handle] = {*real, true, 0};
  return handleReply(id, handle);
}

std::string MemoryServer::read(uint32_t id, SFTPPacketReader& reader) {
  const std::string handle(reader.string());
  const uint64_t offset = reader.u64();
  const size_t length = std::min<size_t>(reader.u32(), mostPerRead);
  if (!iHandles.contains(handle)) return statusReply(id, kSFTPStatusFailure, "Failure");
  const std::string& content = iItems[iHandles[handle].path].content;
  if (offset >= content.size()) return statusReply(id, kSFTPStatusEOF, "End of file");
  return dataReply(id, std::string_view(content).substr(offset, length));
}

std::string MemoryServer::write(uint32_t id, SFTPPacketReader& reader) {
  const std::string handle(reader.string());
  const uint64_t offset = reader.u64();
  const std::string_view data = reader.string();
  if (!iHandles.contains(handle)) return statusReply(id, kSFTPStatusFailure, "Failure");
  std::string& content = iItems[iHandles[handle].path].content;
  if (content.size() < offset + data.size()) content.resize(offset + data.size());
  content.replace(offset, data.size(), data);
  return statusReply(id, kSFTPStatusOK);
}

std::string MemoryServer::readdir(uint32_t id, const std::string& handle) {
  const auto found = iHandles.find(handle);
  if (found == iHandles.end()) return statusReply(id, kSFTPStatusFailure, "Failure");
  const std::string prefix = found->second.path == "/" ? "/" : found->second.path + "/";
  std::string names;
  size_t index = 0;
  uint32_t count = 0;
  for (const auto& [path, child] : iItems) {
    if (path.size() <= prefix.size() || !path.starts_with(prefix) ||
        path.find('/', prefix.size()) != path.npos)
      continue;
    if (index++ < found->second.nextName || count == namesPerReply) continue;
    names += str(path.substr(prefix.size())) + str("-rw-r--r-- 1 a b " + path) + attributesOf(child);
    ++count;
  }
  found->second.nextName += count;
  if (count == 0) return statusReply(id, kSFTPStatusEOF, "End of file");
  return packet(std::string(1, kSFTPName) + u32(id) + u32(count) + names);
}

std::string MemoryServer::setAttributes(uint32_t id, const std::string& path, SFTPPacketReader& reader) {
  const SFTPAttributes wanted = readSFTPAttributes(reader);
  Item& changed = iItems[path];
  if (wanted.size) changed.content.resize(*wanted.size);
  if (wanted.permissions) changed.mode = (changed.mode & 0170000) | *wanted.permissions;
  if (wanted.times) changed.date = wanted.times->modification;
  // Last, as OpenSSH's server does it.
  if (wanted.owner) {
    if (refuseOwner) return statusReply(id, kSFTPStatusPermissionDenied, "Permission denied");
    changed.owner = wanted.owner->user;
    changed.group = wanted.owner->group;
    changed.mode &= ~06000U;
  }
  return statusReply(id, kSFTPStatusOK);
}

std::string MemoryServer::rename(uint32_t id, const std::string& from, const std::string& to, bool replaces) {
  if (!iItems.contains(from)) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
  if (iItems.contains(to) && (!replaces || hasChildren(to)))
    return statusReply(id, kSFTPStatusFailure, "Failure");
  std::map<std::string, Item> moved;
  for (const auto& [path, child] : iItems) {
    if (isAtOrBelowRemotePath(path, to)) continue;
    moved[isAtOrBelowRemotePath(path, from) ? to + path.substr(from.size()) : path] = child;
  }
  iItems = moved;
  return statusReply(id, kSFTPStatusOK);
}

std::string MemoryServer::extended(uint32_t id, SFTPPacketReader& reader) {
  const std::string name(reader.string());
  if (name == "limits@openssh.com") {
    return packet(std::string(1, static_cast<char>(kSFTPExtendedReply)) + u32(id) + u64(262144) +
                  u64(readLength) + u64(writeLength) + u64(100));
  }
  const std::string first(reader.string());
  if (name == "fsync@openssh.com") {
    if (iHandles.count(first) == 0) return statusReply(id, kSFTPStatusNoSuchFile, "No such file");
    flushed.push_back(iHandles.at(first).path);
    return statusReply(id, kSFTPStatusOK);
  }
  if (name == "posix-rename@openssh.com") return rename(id, first, std::string(reader.string()), true);
  if (name == "expand-path@openssh.com") {
    if (first.starts_with("~other")) return nameReply(id, "/home/other" + first.substr(6));
    return nameReply(id, "/home/user" + first.substr(1));
  }
  if (name == "lsetstat@openssh.com") return setAttributes(id, first, reader);
  if (name == "statvfs@openssh.com") {
    std::string values = u64(4096) + u64(512) + u64(1000) + u64(900) + u64(freeBytes / 512);
    for (int i = 0; i < 4; ++i) values += u64(0);
    values += u64(isReadOnly ? kSFTPVolumeIsReadOnly : 0) + u64(255);
    return packet(std::string(1, static_cast<char>(kSFTPExtendedReply)) + u32(id) + values);
  }
  return statusReply(id, kSFTPStatusOpUnsupported, "Operation unsupported");
}

std::string MemoryServer::realpath(uint32_t id, const std::string& path) {
  if (resolvesLexically) return nameReply(id, normalRemotePath(path));
  uint32_t status = 0;
  const auto real = follow(path, &status, true);
  return real ? nameReply(id, *real) : statusReply(id, status, "No such file");
}

std::string MemoryServer::attributesReply(uint32_t id, const std::string& path) const {
  const Item* found = item(path);
  return found != nullptr ? attrsReply(id, attributesOf(*found))
                          : statusReply(id, kSFTPStatusNoSuchFile, "No such file");
}

bool MemoryServer::hasChildren(const std::string& path) const {
  return std::any_of(iItems.begin(), iItems.end(), [&](const auto& entry) {
    return entry.first != path && isAtOrBelowRemotePath(entry.first, path);
  });
}

std::string MemoryServer::followWay(const std::string& path) const {
  const size_t end = path.find_last_not_of('/') + 1;
  const size_t slash = path.rfind('/', end - 1);
  uint32_t status = 0;
  const auto parent = follow(path.substr(0, slash + 1), &status);
  if (!parent) return path;
  return remotePathInFolder(*parent, path.substr(slash + 1, end - slash - 1));
}

std::optional<std::string> MemoryServer::follow(const std::string& path, uint32_t* status,
                                                bool lastMayMiss) const {
  std::string reached;
  std::string rest = path;
  *status = kSFTPStatusNoSuchFile;
  for (int links = 0; links < 20;) {
    const size_t begin = rest.find_first_not_of('/');
    if (begin == std::string::npos) return reached.empty() ? "/" : reached;
    const size_t end = std::min(rest.find('/', begin), rest.size());
    const std::string next = normalRemotePath(reached + "/" + rest.substr(begin, end - begin));
    rest.erase(0, end);
    const Item* found = item(next);
    if (found == nullptr && !(lastMayMiss && rest.empty())) return std::nullopt;
    if (found != nullptr && isLink(*found)) {
      ++links;
      if (found->content.starts_with('/')) reached.clear();
      rest = found->content + "/" + rest;
      continue;
    }
    reached = next == "/" ? "" : next;
  }
  return std::nullopt;
}

}  // namespace ombra::test
