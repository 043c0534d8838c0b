#include "remote/ftp/FTPFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

#include "platform/foundation/ASCII.h"
#include "remote/ByteCount.h"
#include "remote/FilePermissions.h"
#include "remote/ftp/FTPText.h"

namespace ombra {

namespace {

int factNumber(std::string_view text) { return ftpNumber<int>(text).value_or(-1); }

// "OS.unix=slink:/target", "OS.unix=symlink": the target where it is told.
void takeSystemType(std::string_view value, FTPItem* item) {
  const size_t equals = value.find('=');
  if (equals == std::string_view::npos) {
    item->kind = FTPItem::Kind::kUnknown;
    return;
  }
  const std::string_view kind = value.substr(equals + 1);
  const size_t colon = kind.find(':');
  const std::string_view name = kind.substr(0, colon);
  if (!equalIgnoringCase(name, "slink") && !equalIgnoringCase(name, "symlink")) {
    item->kind = FTPItem::Kind::kUnknown;
    return;
  }
  item->entry.type = kNodeTypeAlias;
  if (colon != std::string_view::npos && colon + 1 < kind.size()) {
    item->entry.targetPath = std::string(kind.substr(colon + 1));
  }
}

void takeType(std::string_view value, FTPItem* item) {
  if (equalIgnoringCase(value, "file")) {
    item->entry.type = kNodeTypeFile;
  } else if (equalIgnoringCase(value, "dir")) {
    item->entry.type = kNodeTypeFolder;
  } else if (equalIgnoringCase(value, "cdir") || equalIgnoringCase(value, "pdir")) {
    item->entry.type = kNodeTypeFolder;
    item->kind = FTPItem::Kind::kSelf;
  } else {
    takeSystemType(value, item);
  }
}

void takeFact(std::string_view name, std::string_view value, FTPItem* item) {
  NSFileAttributes& attributes = item->entry.attributes;
  if (equalIgnoringCase(name, "type")) {
    takeType(value, item);
  } else if (equalIgnoringCase(name, "size")) {
    attributes.fileSize = byteCount(value);
  } else if (equalIgnoringCase(name, "modify")) {
    attributes.modificationDate = dateOfFTPTime(value);
  } else if (equalIgnoringCase(name, "create")) {
    attributes.creationDate = dateOfFTPTime(value);
  } else if (equalIgnoringCase(name, "unix.mode")) {
    if (const auto mode = ftpNumber<uint32_t>(value, 8)) {
      attributes.posixPermissions = static_cast<uint16_t>(*mode & kPermissionBits);
    }
  } else if (equalIgnoringCase(name, "unix.uid") || equalIgnoringCase(name, "unix.owner")) {
    if (const auto owner = ftpNumber<uint32_t>(value)) attributes.ownerAccountID = owner;
  } else if (equalIgnoringCase(name, "unix.gid") || equalIgnoringCase(name, "unix.group")) {
    if (const auto group = ftpNumber<uint32_t>(value)) attributes.groupOwnerAccountID = group;
  } else if (equalIgnoringCase(name, "perm")) {
    item->tellsPermissions = true;
    item->permissions += lowercasedASCII(value);
  }
}

}  // namespace

std::optional<FTPItem> itemOfFacts(std::string_view line) {
  while (line.ends_with('\r')) line.remove_suffix(1);
  // The facts end at the first blank that follows a semicolon: a link's target, told as a fact, may hold
  // blanks.
  size_t nameAt = line.find("; ");
  if (line.starts_with(' ')) {
    nameAt = 0;
  } else if (nameAt == std::string_view::npos) {
    return std::nullopt;
  } else {
    ++nameAt;
  }
  std::string_view facts = line.substr(0, nameAt);
  FTPItem item;
  item.entry.name = line.substr(nameAt + 1);
  if (item.entry.name.empty()) return std::nullopt;
  while (!facts.empty()) {
    const size_t end = std::min(facts.find(';'), facts.size());
    const std::string_view fact = facts.substr(0, end);
    facts.remove_prefix(std::min(end + 1, facts.size()));
    const size_t equals = fact.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    takeFact(fact.substr(0, equals), fact.substr(equals + 1), &item);
  }
  if (item.entry.type == kNodeTypeFolder) item.entry.attributes.fileSize.reset();
  return item;
}

std::optional<NSDate> dateOfFTPTime(std::string_view text) {
  // Servers of 1999 wrote the year after it as "19100": a century too many digits.
  if (text.starts_with("191") && text.find('.') == std::string_view::npos && text.size() == 15) {
    const std::optional<int> years = ftpNumber<int>(text.substr(2, 3));
    if (!years) return std::nullopt;
    return dateOfFTPTime(fmt::format("{}{}", 1900 + *years, text.substr(5)));
  }
  const size_t point = std::min(text.find('.'), text.size());
  const std::string_view whole = text.substr(0, point);
  if (whole.size() != 14 || whole.find_first_not_of("0123456789") != std::string_view::npos)
    return std::nullopt;
  std::tm fields = {};
  fields.tm_year = ftpNumber<int>(whole.substr(0, 4)).value_or(0) - 1900;
  fields.tm_mon = factNumber(whole.substr(4, 2)) - 1;
  fields.tm_mday = factNumber(whole.substr(6, 2));
  fields.tm_hour = factNumber(whole.substr(8, 2));
  fields.tm_min = factNumber(whole.substr(10, 2));
  fields.tm_sec = factNumber(whole.substr(12, 2));
  if (fields.tm_mon > 11 || fields.tm_mon < 0 || fields.tm_mday < 1 || fields.tm_mday > 31 ||
      fields.tm_hour > 23 || fields.tm_min > 59 || fields.tm_sec > 60 || fields.tm_year < -300) {
    return std::nullopt;
  }
  const int64_t seconds = timegm(&fields);
  // Beyond what nanoseconds since 1970 can count.
  if (seconds > 9'000'000'000 || seconds < -9'000'000'000) return std::nullopt;
  int64_t nanoseconds = 0;
  int64_t unit = 100'000'000;
  for (const char digit : text.substr(std::min(point + 1, text.size()))) {
    if (digit < '0' || digit > '9') return std::nullopt;
    nanoseconds += (digit - '0') * unit;
    unit /= 10;
  }
  return NSDate::dateWithNanoseconds(seconds * 1'000'000'000 + nanoseconds);
}

std::optional<std::string> ftpTimeOfDate(NSDate date) {
  const timespec time = kc_timespec(date);
  std::tm fields = {};
  if (gmtime_r(&time.tv_sec, &fields) == nullptr) return std::nullopt;
  if (fields.tm_year < -900 || fields.tm_year > 8099) return std::nullopt;
  return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", fields.tm_year + 1900, fields.tm_mon + 1,
                     fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
}

}  // namespace ombra
