// The operations table of the fuse library: from its calls to those of a Volume.
#pragma once

#include <atomic>
#include <functional>

#include "platform/userfs/FuseLibrary.h"
#include "platform/userfs/Volume.h"

namespace ombra {

// What the library keeps for the operations and hands back with each.
struct OperationsContext {
  Volume* volume = nullptr;
  // Called once the kernel has agreed on the terms of the connection.
  std::function<void()> initialized;
  Volume::PageDropper dropPages;
  // Whether the kernel can let an entry expire without taking it away.
  std::atomic<bool> canExpireEntries{false};
};

// Each operation catches every exception, logs it, and answers EIO.
const fuse_operations& volumeOperations();

}  // namespace ombra
