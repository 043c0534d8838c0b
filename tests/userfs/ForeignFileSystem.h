// A small file system upon the fuse library alone, as any program has one, with a module that the library
// loads.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <thread>

#include "platform/foundation/Mutex.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {

// Files without folders, at the top. It numbers no entries of its listing, and asks for paths everywhere.
class ForeignFileSystem {
 public:
  ForeignFileSystem();
  ~ForeignFileSystem();
  // Mounts with "-o OPTIONS", a list with commas; false when the library refuses.
  bool mount(const std::string& options);
  std::string at(const std::string& name) const { return iFolder / name; }
  const std::string& path() const { return iFolder.path(); }
  void add(const std::string& name, std::string content);
  // "(none)" when there is no such file.
  std::string contentOf(const std::string& name);
  // How often the library has ended it.
  int ends() const { return iEnds; }
  // Unmounts and lets everything go.
  void unmount();

  // What it answers to the library.
  struct Operations;

 private:
  struct Library;

  TemporaryFolder iFolder;
  Mutex iLock;
  std::map<std::string, std::string> iFiles GUARDED_BY(iLock);
  int iEnds = 0;
  std::unique_ptr<Library> iLibrary;
  std::thread iLoop;
};

}  // namespace ombra
