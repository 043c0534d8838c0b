#include "frontend/PassthroughOwner.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "frontend/ProcessDescriptor.h"
#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

pid_t ownerOfPassthrough(const std::string& identifier) {
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  const std::string path =
      stringByAppendingPathComponent(folder, fmt::format("{}.{}.pid", "OmbraFS", identifier));
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  int32_t owner = 0;
  if (folder.empty() || !file || read(file.get(), &owner, sizeof owner) != sizeof owner || owner <= 0)
    return 0;
  // Not by a signal: that also reaches one which has ended and was not collected yet.
  const UniqueFd process = openProcess(owner);
  if (!process) return errno == ESRCH || errno == EINVAL || errno == ENOENT ? 0 : owner;
  pollfd end{process.get(), POLLIN, 0};
  return poll(&end, 1, 0) == 0 ? owner : 0;
}

}  // namespace ombra
