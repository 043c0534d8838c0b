#include "platform/foundation/DefaultsFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/PropertyListScan.h"

namespace ombra {
namespace {

void fail(NSErrorRef* slot, int errorNumber, std::string_view what) {
  storeError(slot, NSError::errorWithDomain(NSPOSIXErrorDomain, errorNumber,
                                            {{std::string(NSLocalizedDescriptionKey),
                                              fmt::format("{}: {}", what, kc_strerror(errorNumber))},
                                             {"NSFilePath", DefaultsFile::path()}}));
}

// Reads a whole file; one byte over the limit is enough to see that it is too large.
std::optional<NSData> readWhole(const NSFileHandle& file) {
  NSData data(std::min<uint64_t>(file.fileLength(), kMaximumPropertyListSize + 1));
  const ssize_t count = file.readAt(data.data(), data.size(), 0);
  if (count < 0) return std::nullopt;
  data.resize(static_cast<size_t>(count));
  return data;
}

// The lock of those who change the file, on the folder: the file itself is replaced each time. Held until
// closed.
std::unique_ptr<NSFileHandle> lockFolder(NSErrorRef* error) {
  const std::string folder = NSFileManager::configurationFolder();
  if (!NSFileManager::createDirectoryAtPath(folder, true, 0700, error)) return nullptr;
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    fail(error, errno, "cannot open the configuration folder");
    return nullptr;
  }
  auto handle = std::make_unique<NSFileHandle>(descriptor);
  while (::flock(descriptor, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    fail(error, errno, "cannot lock the configuration folder");
    return nullptr;
  }
  return handle;
}

bool replaceFile(const NSData& contents, NSErrorRef* error) {
  const std::string path = DefaultsFile::path();
  // A fixed name: the lock keeps others out, and what a crash left is overwritten.
  const std::string beside = path + ".new";
  const int descriptor = ::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (descriptor < 0) {
    fail(error, errno, "cannot write the settings");
    return false;
  }
  NSFileHandle file(descriptor);
  // On disk before it takes the old one's place, so that a power cut leaves one of the two.
  if (file.writeAll(contents.data(), contents.size(), 0) && ::fsync(descriptor) == 0 &&
      ::rename(beside.c_str(), path.c_str()) == 0) {
    return true;
  }
  fail(error, errno, "cannot write the settings");
  ::unlink(beside.c_str());
  return false;
}

}  // namespace

std::string DefaultsFile::path() {
  return stringByAppendingPathComponent(NSFileManager::configurationFolder(), "defaults.plist");
}

std::optional<NSDictionary> DefaultsFile::read(std::string* reason) {
  const int descriptor = ::open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0 && (errno == ENOENT || errno == ENOTDIR)) return NSDictionary();
  if (descriptor < 0) {
    *reason = kc_strerror(errno);
    return std::nullopt;
  }
  const NSFileHandle file(descriptor);
  const std::optional<NSData> data = readWhole(file);
  if (data) return parse(*data, reason);
  *reason = kc_strerror(errno);
  return std::nullopt;
}

std::optional<NSDictionary> DefaultsFile::parse(std::span<const uint8_t> data, std::string* reason) {
  const PropertyListRef root = parsePropertyList(data, reason);
  if (root == nullptr) return std::nullopt;
  if (plist_get_node_type(root.get()) != PLIST_DICT) {
    *reason = "the property list is no dictionary";
    return std::nullopt;
  }
  return *propertyValueOf(root.get()).asDictionary();
}

std::optional<NSDictionary> DefaultsFile::change(PropertyValue value, std::string_view key,
                                                 NSErrorRef* error) {
  const std::unique_ptr<NSFileHandle> lock = lockFolder(error);
  if (lock == nullptr) return std::nullopt;
  std::string reason;
  std::optional<NSDictionary> values = read(&reason);
  if (!values) {
    fail(error, EINVAL,
         fmt::format("the settings cannot be changed ({}); correct or remove the file", reason));
    return std::nullopt;
  }
  if (value.isNull()) {
    values->removeObjectForKey(key);
  } else {
    values->setObject(std::move(value), key);
  }
  const PropertyListRef root = propertyListOf(std::make_shared<const NSDictionary>(*values));
  if (root == nullptr) {
    fail(error, EINVAL, "this setting has a value that no property list can hold");
    return std::nullopt;
  }
  if (!replaceFile(XMLPropertyList(root.get()), error)) return std::nullopt;
  return values;
}

}  // namespace ombra
