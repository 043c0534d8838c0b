#include "platform/userfs/Volume.h"

#include <unistd.h>

#include <utility>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/userfs/AbsentDelegate.h"
#include "platform/userfs/NumberTranslation.h"

namespace ombra {

AbsentDelegate* AbsentDelegate::shared() {
  // Never destroyed: requests may still be answered while the process ends.
  static AbsentDelegate* sShared = new AbsentDelegate();  // NOLINT: immortal on purpose
  return sShared;
}

int failure(const NSErrorRef& error) { return -systemErrnoOfError(error); }

OptionalPath optionalPath(const std::optional<std::string>& path) {
  return path ? OptionalPath(*path) : std::nullopt;
}

Volume::Volume(GMUserFileSystemDelegate* delegate, VolumeSettings settings)
    : iSettings(std::move(settings)),
      iUser(getuid()),
      iGroup(getgid()),
      iDelegate(AbsentDelegate::shared()),
      iDurability(nullptr),
      iClosers("closer", kClosers) {
  setDelegate(delegate);
}

void Volume::setDelegate(GMUserFileSystemDelegate* delegate) {
  iDurability = dynamic_cast<GMUserFileSystemDurability*>(delegate);
  iDelegate = delegate != nullptr ? delegate : AbsentDelegate::shared();
}

std::string Volume::listedPath(std::string_view path) const {
  GMUserFileSystemDurability* durability = this->durability();
  // Letters of ASCII have one form only.
  if (durability == nullptr || isASCII(path)) return std::string(path);
  return durability->listedPathForPath(path);
}

std::optional<NSFileAttributes> Volume::attributesAtPath(const std::string& path) const {
  return delegate().attributesOfItemAtPath(path, nullptr, nullptr);
}

}  // namespace ombra
