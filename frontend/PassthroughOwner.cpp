#include "frontend/PassthroughOwner.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>

#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/ProcessEnd.h"

namespace ombra {

pid_t ownerOfPassthrough(const std::string& identifier) {
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  const std::string path =
      stringByAppendingPathComponent(folder, fmt::format("{}.{}.pid", "OmbraFS", identifier));
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  int32_t owner = 0;
  if (folder.empty() || !file || read(file.get(), &owner, sizeof owner) != sizeof owner || owner <= 0)
    return 0;
  return processHasEnded(owner) ? 0 : owner;
}

}  // namespace ombra
