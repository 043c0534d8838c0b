// The test program; started with "--helper VOLUMES PATH" it mounts a volume there instead, until it is
// killed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string_view>

#include "platform/foundation/NSNotificationCenter.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "tests/userfs/MemoryFileSystem.h"

namespace ombra {
namespace {

int runHelper(const std::string& volumes, const std::string& path) {
  GMUserFileSystem::setVolumesFolder(volumes);
  MemoryFileSystem files;
  files.addFile("/from the helper", "x");
  GMUserFileSystem fileSystem(&files, true);
  NSNotificationCenter::defaultCenter().addObserver(&files, kGMUserFileSystemDidMount,
                                                    [](const NSNotification&) {
                                                      if (write(STDOUT_FILENO, "x", 1) != 1) _exit(1);
                                                    });
  fileSystem.mountAtPath(path, {}, true, false);
  return 0;
}

}  // namespace
}  // namespace ombra

int main(int argc, char** argv) {
  if (argc == 4 && std::string_view(argv[1]) == "--helper") return ombra::runHelper(argv[2], argv[3]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
