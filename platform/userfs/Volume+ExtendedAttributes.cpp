// Extended attributes. The delegate keeps them by name; there is no removal.
#include <cstring>

#include "platform/userfs/NumberTranslation.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

// The kernel asks for capabilities before each write and for access lists at each copy; neither is stored
// anywhere.
bool isOfTheSystem(std::string_view name) {
  return name.substr(0, 9) == "security." || name.substr(0, 7) == "system.";
}

// A size of 0 asks how much there is.
int answer(const void* bytes, size_t count, char* buffer, size_t size) {
  if (size == 0) return static_cast<int>(count);
  if (size < count) return -ERANGE;
  if (count != 0) std::memcpy(buffer, bytes, count);
  return static_cast<int>(count);
}

}  // namespace

// "Not implemented" makes the kernel stop asking for the rest of the mount; only a volume without attributes
// says so.
int Volume::setExtendedAttribute(const char* path, const char* name, const char* value, size_t size,
                                 int flags) {
  if (!iSettings.nativeXattr) return -ENOSYS;
  if (isOfTheSystem(name)) return -EOPNOTSUPP;
  const auto* bytes = reinterpret_cast<const uint8_t*>(value);
  const NSData data(bytes, bytes + size);
  NSErrorRef error;
  const bool isSet =
      delegate().setExtendedAttribute(name, listedPath(path), data, 0, interfaceXattrOptions(flags), &error);
  return isSet ? 0 : failure(error);
}

int Volume::extendedAttribute(const char* path, const char* name, char* buffer, size_t size) {
  if (!iSettings.nativeXattr) return -ENOSYS;
  if (isOfTheSystem(name)) return -EOPNOTSUPP;
  NSErrorRef error;
  const auto value = delegate().valueOfExtendedAttribute(name, listedPath(path), 0, &error);
  return value ? answer(value->data(), value->size(), buffer, size) : failure(error);
}

int Volume::extendedAttributes(const char* path, char* buffer, size_t size) {
  if (!iSettings.nativeXattr) return -ENOSYS;
  NSErrorRef error;
  const auto names = delegate().extendedAttributesOfItemAtPath(listedPath(path), &error);
  if (!names) return failure(error);
  std::string list;
  for (const std::string& name : *names) list.append(name).push_back('\0');
  return answer(list.data(), list.size(), buffer, size);
}

int Volume::removeExtendedAttribute(const char* /*path*/, const char* /*name*/) { return -EOPNOTSUPP; }

}  // namespace ombra
