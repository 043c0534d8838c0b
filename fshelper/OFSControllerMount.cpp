#include "fshelper/OFSControllerMount.h"

#include <utility>

#include "fshelper/DrelFSInstaller.h"

namespace ombra {
namespace {

class FrameworkMount final : public OFSMount {
 public:
  FrameworkMount(GMUserFileSystemDelegate* delegate, bool isThreadSafe)
      : iFileSystem(delegate, isThreadSafe) {}

  void mountAtPath(std::string path, std::vector<std::string> withOptions, bool shouldForeground,
                   bool detachNewThread) override {
    DrelFSInstaller::loadDrelFSIfNeeded();
    iFileSystem.mountAtPath(std::move(path), std::move(withOptions), shouldForeground, detachNewThread);
  }
  void unmount() override { iFileSystem.unmount(); }
  void setDelegate(GMUserFileSystemDelegate* delegate) override { iFileSystem.setDelegate(delegate); }
  void invalidateDirectoryAtPath(std::string_view path) override {
    iFileSystem.invalidateDirectoryAtPath(path);
  }
  void invalidateItemAtPath(std::string_view path, bool data) override {
    iFileSystem.invalidateItemAtPath(path, data);
  }

 private:
  GMUserFileSystem iFileSystem;
};

}  // namespace

std::shared_ptr<OFSMount> OFSMount::initWithDelegate(GMUserFileSystemDelegate* delegate, bool isThreadSafe) {
  return std::make_shared<FrameworkMount>(delegate, isThreadSafe);
}

}  // namespace ombra
