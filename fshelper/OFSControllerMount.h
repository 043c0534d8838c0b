// The controller's view of the framework object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/userfs/GMUserFileSystem.h"

namespace ombra {

// What the controller asks of GMUserFileSystem, so that a test can look at the options instead of mounting.
class OFSMount : public GMUserFileSystemInvalidation {
 public:
  virtual void mountAtPath(std::string path, std::vector<std::string> withOptions, bool shouldForeground,
                           bool detachNewThread) = 0;
  virtual void unmount() = 0;
  virtual void setDelegate(GMUserFileSystemDelegate* delegate) = 0;

  // A GMUserFileSystem for `delegate`, which must outlive the mount.
  static std::shared_ptr<OFSMount> initWithDelegate(GMUserFileSystemDelegate* delegate, bool isThreadSafe);
};

}  // namespace ombra
