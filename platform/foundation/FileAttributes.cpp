#include "platform/foundation/FileAttributes.h"

#include <fmt/format.h>

#include <ctime>
#include <vector>

namespace ombra {
namespace {

std::string_view typeName(NSFileTypeValue type) {
  switch (type) {
    case NSFileTypeValue::NSFileTypeRegular:
      return "NSFileTypeRegular";
    case NSFileTypeValue::NSFileTypeDirectory:
      return "NSFileTypeDirectory";
    case NSFileTypeValue::NSFileTypeSymbolicLink:
      return "NSFileTypeSymbolicLink";
  }
  return "?";
}

std::string utc(NSDate date) {
  const timespec time = kc_timespec(date);
  tm parts{};
  gmtime_r(&time.tv_sec, &parts);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

// Collects "key=value" for the entries that are present.
class Describer {
 public:
  template <typename T>
  void add(std::string_view key, const std::optional<T>& value) {
    if (value) iEntries.push_back(fmt::format("{}={}", key, *value));
  }
  void add(std::string_view key, const std::optional<NSDate>& date) {
    if (date) iEntries.push_back(fmt::format("{}={}", key, utc(*date)));
  }
  void addText(std::string_view key, std::string_view text) {
    iEntries.push_back(fmt::format("{}={}", key, text));
  }
  std::string text() const { return fmt::format("{{{}}}", fmt::join(iEntries, ", ")); }

 private:
  std::vector<std::string> iEntries;
};

}  // namespace

size_t NSFileAttributes::count() const {
  const bool present[] = {fileType.has_value(),         fileSize.has_value(),
                          creationDate.has_value(),     modificationDate.has_value(),
                          posixPermissions.has_value(), systemFileNumber.has_value(),
                          systemSize.has_value(),       systemFreeSize.has_value(),
                          ownerAccountID.has_value(),   groupOwnerAccountID.has_value()};
  size_t count = 0;
  for (bool one : present) count += one ? 1 : 0;
  return count;
}

std::string NSFileAttributes::description() const {
  Describer describer;
  if (fileType) describer.addText("NSFileType", typeName(*fileType));
  describer.add("NSFileSize", fileSize);
  describer.add("NSFileCreationDate", creationDate);
  describer.add("NSFileModificationDate", modificationDate);
  if (posixPermissions) describer.addText("NSFilePosixPermissions", fmt::format("{:04o}", *posixPermissions));
  describer.add("NSFileSystemFileNumber", systemFileNumber);
  describer.add("NSFileSystemSize", systemSize);
  describer.add("NSFileSystemFreeSize", systemFreeSize);
  describer.add("NSFileOwnerAccountID", ownerAccountID);
  describer.add("NSFileGroupOwnerAccountID", groupOwnerAccountID);
  return describer.text();
}

}  // namespace ombra
