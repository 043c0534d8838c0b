#include "platform/userfs/FuseModule.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

std::string folderOfProgram() {
  std::array<char, 4096> path{};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<size_t>(length) == path.size()) return {};
  return stringByDeletingLastPathComponent(std::string_view(path.data(), static_cast<size_t>(length)));
}

// Never unloaded: threads may still run its code while the process ends.
bool load(const std::string& file) {
  return dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) != nullptr;
}

}  // namespace

bool loadFuseModule(std::string_view name, std::string* reason) {
  const std::string file = "libfusemod_" + std::string(name) + ".so";
  const std::string beside = stringByAppendingPathComponent(folderOfProgram(), file);
  if (access(beside.c_str(), R_OK) == 0 ? load(beside) : load(file)) return true;
  const char* words = dlerror();
  *reason = words != nullptr ? words : "the system gave no reason";
  return false;
}

}  // namespace ombra
