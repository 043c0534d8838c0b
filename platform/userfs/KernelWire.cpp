#include "platform/userfs/KernelWire.h"

#include <linux/fuse.h>

#include <cstddef>
#include <cstring>

#include "platform/userfs/RequestContext.h"

namespace ombra {

namespace {

template <typename Body>
bool readBody(const void* message, size_t size, Body* body) {
  if (size < sizeof(fuse_in_header) + sizeof(Body)) return false;
  std::memcpy(body, static_cast<const char*>(message) + sizeof(fuse_in_header), sizeof(Body));
  return true;
}

template <typename Body>
void writeBody(void* message, const Body& body) {
  std::memcpy(static_cast<char*>(message) + sizeof(fuse_in_header), &body, sizeof(Body));
}

}  // namespace

RequestContext& RequestContext::current() {
  thread_local RequestContext context;
  return context;
}

bool RequestContext::isLookup() const { return opcode == FUSE_LOOKUP; }

bool RequestContext::isMakingNode() const { return opcode == FUSE_MKNOD; }

uint64_t RequestContext::nodeIDOfFile() const {
  return opcode == FUSE_RENAME || opcode == FUSE_RENAME2 ? 0 : nodeID;
}

bool readRequestHead(const void* message, size_t size) {
  RequestContext& context = RequestContext::current();
  context = RequestContext();
  fuse_in_header head{};
  if (size < sizeof(head)) return false;
  std::memcpy(&head, message, sizeof(head));
  context.opcode = head.opcode;
  context.nodeID = head.nodeid;
  context.thread = static_cast<pid_t>(head.pid);
  return true;
}

void addHandleToAttributeRequest(void* message, size_t size,
                                 const std::function<uint64_t(uint64_t)>& handleOfNode) {
  const RequestContext& context = RequestContext::current();
  if (context.opcode == FUSE_GETATTR) {
    fuse_getattr_in body{};
    if (!readBody(message, size, &body) || (body.getattr_flags & FUSE_GETATTR_FH) != 0) return;
    body.fh = handleOfNode(context.nodeID);
    if (body.fh == 0) return;
    body.getattr_flags |= FUSE_GETATTR_FH;
    writeBody(message, body);
  } else if (context.opcode == FUSE_SETATTR) {
    fuse_setattr_in body{};
    if (!readBody(message, size, &body) || (body.valid & FATTR_FH) != 0) return;
    body.fh = handleOfNode(context.nodeID);
    if (body.fh == 0) return;
    body.valid |= FATTR_FH;
    writeBody(message, body);
  }
}

uint64_t nodeIDOfCreationReply(const iovec* parts, int count) {
  fuse_out_header head{};
  if (count < 2 || parts[0].iov_len < sizeof(head)) return 0;
  std::memcpy(&head, parts[0].iov_base, sizeof(head));
  uint64_t nodeID = 0;
  if (head.error != 0 || parts[1].iov_len < sizeof(nodeID)) return 0;
  std::memcpy(&nodeID, parts[1].iov_base, sizeof(nodeID));
  return nodeID;
}

std::optional<uint64_t> allowListingCache(const iovec* parts, int count, bool keepsListing) {
  fuse_out_header head{};
  fuse_open_out body{};
  if (count < 2 || parts[0].iov_len < sizeof(head) || parts[1].iov_len < sizeof(body)) return std::nullopt;
  std::memcpy(&head, parts[0].iov_base, sizeof(head));
  if (head.error != 0) return std::nullopt;
  std::memcpy(&body, parts[1].iov_base, sizeof(body));
  body.open_flags |= FOPEN_CACHE_DIR;
  if (keepsListing) body.open_flags |= FOPEN_KEEP_CACHE;
  std::memcpy(parts[1].iov_base, &body, sizeof(body));
  return body.fh;
}

bool offersPrivileges(const void* message, size_t size) {
  // An old kernel sends a shorter message, and knows nothing of this either.
  fuse_init_in body{};
  return RequestContext::current().opcode == FUSE_INIT && readBody(message, size, &body) &&
         (body.flags & FUSE_HANDLE_KILLPRIV_V2) != 0;
}

void acceptPrivileges(const iovec* parts, int count) {
  fuse_out_header head{};
  constexpr size_t kFlags = offsetof(fuse_init_out, flags);
  uint32_t flags = 0;
  if (count < 2 || parts[0].iov_len < sizeof(head) || parts[1].iov_len < kFlags + sizeof(flags)) return;
  std::memcpy(&head, parts[0].iov_base, sizeof(head));
  if (head.error != 0) return;
  char* place = static_cast<char*>(parts[1].iov_base) + kFlags;
  std::memcpy(&flags, place, sizeof(flags));
  flags |= FUSE_HANDLE_KILLPRIV_V2;
  std::memcpy(place, &flags, sizeof(flags));
}

bool takesPrivileges(const void* message, size_t size) {
  switch (RequestContext::current().opcode) {
    case FUSE_WRITE: {
      fuse_write_in body{};
      return readBody(message, size, &body) && (body.write_flags & FUSE_WRITE_KILL_SUIDGID) != 0;
    }
    case FUSE_SETATTR: {
      fuse_setattr_in body{};
      return readBody(message, size, &body) && (body.valid & FATTR_KILL_SUIDGID) != 0;
    }
    case FUSE_OPEN: {
      fuse_open_in body{};
      return readBody(message, size, &body) && (body.open_flags & FUSE_OPEN_KILL_SUIDGID) != 0;
    }
    default:
      return false;
  }
}

std::optional<uint64_t> handleOfFolderRelease(const void* message, size_t size) {
  fuse_release_in body{};
  if (RequestContext::current().opcode != FUSE_RELEASEDIR || !readBody(message, size, &body))
    return std::nullopt;
  return body.fh;
}

std::vector<char> folderRelease(uint64_t handle, uint64_t nodeID) {
  std::vector<char> message(sizeof(fuse_in_header) + sizeof(fuse_release_in));
  fuse_in_header head{};
  head.len = static_cast<uint32_t>(message.size());
  head.opcode = FUSE_RELEASEDIR;
  head.unique = 1;
  head.nodeid = nodeID;
  fuse_release_in body{};
  body.fh = handle;
  std::memcpy(message.data(), &head, sizeof(head));
  writeBody(message.data(), body);
  return message;
}

}  // namespace ombra
