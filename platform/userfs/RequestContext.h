// What the running thread knows of the kernel's request that it is answering.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace ombra {

struct OpenHandle;

// The path-based interface of the fuse library hides the numbers that the kernel knows files by; the loop
// keeps them here around each request. One per thread; empty on threads that answer no request.
struct RequestContext {
  uint32_t opcode = 0;
  uint64_t nodeID = 0;                  // for a creation that of the folder
  pid_t thread = 0;                     // that asks; 0 when the kernel does not tell
  std::shared_ptr<OpenHandle> created;  // a file just created, whose number comes with the reply
  // A folder just opened: whether the kernel may answer from the listing that it has.
  std::optional<bool> keepsListing;

  bool offersPrivileges = false;  // see KernelWire.h
  bool takesPrivileges = false;

  // The calling thread's.
  static RequestContext& current();
  // Whether the kernel looks a name up.
  bool isLookup() const;
  // Whether the kernel makes an item without opening it, which the fuse library answers with an open file.
  bool isMakingNode() const;
  // 0 where `nodeID` is that of a folder: a module may open a file to answer a move.
  uint64_t nodeIDOfFile() const;
};

}  // namespace ombra
