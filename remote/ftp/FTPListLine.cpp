#include "remote/ftp/FTPListLine.h"

#include <array>
#include <ctime>

#include "platform/foundation/ASCII.h"
#include "remote/ByteCount.h"
#include "remote/ftp/FTPText.h"

namespace ombra {

namespace {

constexpr size_t kModeLength = 10;

struct ListWord {
  std::string_view text;
  size_t end = 0;  // where it ends in the line
};

// Name and blanks of a listing count from its columns: words know where they end. As many as a date needs.
constexpr size_t kMostWords = 16;

size_t splitListLine(std::string_view line, std::array<ListWord, kMostWords>* words) {
  size_t count = 0;
  std::string_view rest = line;
  while (count < kMostWords) {
    const std::string_view word = takeFTPWord(&rest);
    if (word.empty()) break;
    (*words)[count++] = {word, line.size() - rest.size()};
  }
  return count;
}

std::optional<int> monthOfName(std::string_view name) {
  constexpr std::array<std::string_view, 12> kMonths{"jan", "feb", "mar", "apr", "may", "jun",
                                                     "jul", "aug", "sep", "oct", "nov", "dec"};
  for (size_t i = 0; i < kMonths.size(); ++i) {
    if (equalIgnoringCase(name.substr(0, 3), kMonths[i]) && name.size() == 3) return static_cast<int>(i);
  }
  return std::nullopt;
}

// "09:30", "9:30", "09:30:15".
bool takeTimeOfDay(std::string_view text, std::tm* fields) {
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || colon > 2) return false;
  const std::string_view rest = text.substr(colon + 1);
  const size_t second = rest.find(':');
  const auto hour = ftpNumber<int>(text.substr(0, colon));
  const auto minute = ftpNumber<int>(rest.substr(0, second));
  const auto seconds =
      second == std::string_view::npos ? std::optional(0) : ftpNumber<int>(rest.substr(second + 1, 2));
  if (!hour || !minute || !seconds || *hour < 0 || *hour > 24 || *minute < 0 || *minute > 59 ||
      *seconds < 0 || *seconds > 60) {
    return false;
  }
  fields->tm_hour = *hour;
  fields->tm_min = *minute;
  fields->tm_sec = *seconds;
  return true;
}

std::optional<NSDate> dateOfFields(std::tm fields) {
  // Years that seconds since 1970 in nanoseconds can count, and no other servers' nonsense.
  if (fields.tm_year < 0 || fields.tm_year > 300) return std::nullopt;
  return NSDate::dateWithNanoseconds(static_cast<int64_t>(timegm(&fields)) * 1'000'000'000);
}

// Without a year: this one, or the one before when that would be in the future.
NSDate dateBefore(std::tm fields, NSDate now) {
  constexpr double kGrace = 24.0 * 60 * 60;
  const timespec time = kc_timespec(now);
  std::tm present = {};
  gmtime_r(&time.tv_sec, &present);
  fields.tm_year = present.tm_year;
  const NSDate thisYear = dateOfFields(fields).value_or(now);
  if (thisYear.timeIntervalSinceDate(now) <= kGrace) {
    // Around New Year a clock ahead of ours writes January while we still have December.
    fields.tm_year = present.tm_year + 1;
    const NSDate nextYear = dateOfFields(fields).value_or(now);
    return nextYear.timeIntervalSinceDate(now) <= kGrace ? nextYear : thisYear;
  }
  fields.tm_year = present.tm_year - 1;
  return dateOfFields(fields).value_or(thisYear);
}

// What the date columns say, and how many words they take.
struct ListDate {
  std::optional<NSDate> date;
  size_t words = 0;
};

// "May 14 09:30", "May 14 2023", "14 May 2023".
std::optional<ListDate> dateWithMonthName(const ListWord* words, NSDate now) {
  std::optional<int> month = monthOfName(words[0].text);
  std::string_view dayText = words[1].text;
  if (!month) {
    month = monthOfName(words[1].text);
    dayText = words[0].text;
  }
  if (dayText.ends_with('.') || dayText.ends_with(',')) dayText.remove_suffix(1);
  const auto day = ftpNumber<int>(dayText);
  if (!month || !day || *day < 1 || *day > 31) return std::nullopt;
  std::tm fields = {};
  fields.tm_mon = *month;
  fields.tm_mday = *day;
  if (takeTimeOfDay(words[2].text, &fields)) return ListDate{dateBefore(fields, now), 3};
  const auto year = ftpNumber<int>(words[2].text);
  if (!year || *year < 1900 || *year > 9999) return std::nullopt;
  fields.tm_year = *year - 1900;
  return ListDate{dateOfFields(fields), 3};
}

// "2023-05-14 09:30".
std::optional<ListDate> dateInDigits(const ListWord* words) {
  const std::string_view text = words[0].text;
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
  const auto year = ftpNumber<int>(text.substr(0, 4));
  const auto month = ftpNumber<int>(text.substr(5, 2));
  const auto day = ftpNumber<int>(text.substr(8, 2));
  std::tm fields = {};
  if (!year || !month || !day || *month < 1 || *month > 12 || *day < 1 || *day > 31 ||
      !takeTimeOfDay(words[1].text, &fields)) {
    return std::nullopt;
  }
  fields.tm_year = *year - 1900;
  fields.tm_mon = *month - 1;
  fields.tm_mday = *day;
  return ListDate{dateOfFields(fields), 2};
}

std::optional<uint16_t> modeOfLetters(std::string_view letters) {
  uint16_t mode = 0;
  for (size_t i = 0; i < 9; ++i) {
    const char c = letters[i];
    const auto bit = static_cast<uint16_t>(0400 >> i);
    const auto special = static_cast<uint16_t>(04000 >> (i / 3));
    if (c == '-') continue;
    if (c == "rwx"[i % 3]) {
      mode |= bit;
    } else if (i % 3 == 2 && (c == 's' || c == 't')) {
      mode |= bit | special;
    } else if (i % 3 == 2 && (c == 'S' || c == 'T')) {
      mode |= special;
    } else if (i % 3 != 2 || (c != 'l' && c != 'L')) {
      return std::nullopt;
    }
  }
  return mode;
}

bool takeKind(char letter, FTPItem* item) {
  switch (letter) {
    case '-':
    case 'b':
    case 'c':
    case 'p':
    case 's':
      item->entry.type = kNodeTypeFile;
      return true;
    case 'd':
      item->entry.type = kNodeTypeFolder;
      return true;
    case 'l':
      item->entry.type = kNodeTypeAlias;
      return true;
    default:
      return false;
  }
}

// "name -> target". Either may hold the arrow itself; the size of a link is the length of its target, where
// the server says it.
void takeTarget(FTPItem* item) {
  constexpr std::string_view kArrow = " -> ";
  std::string& name = item->entry.name;
  const size_t first = name.find(kArrow);
  if (first == std::string::npos) return;
  size_t chosen = first;
  for (size_t at = first; at != std::string::npos; at = name.find(kArrow, at + 1)) {
    if (name.size() - at - kArrow.size() == item->entry.attributes.fileSize) chosen = at;
  }
  item->entry.targetPath = name.substr(chosen + kArrow.size());
  name.erase(chosen);
}

// The columns before the name, where the size stands right before the date.
bool takeColumns(std::string_view line, NSDate now, FTPItem* item) {
  std::array<ListWord, kMostWords> words;
  const size_t count = splitListLine(line, &words);
  for (size_t i = 2; i + 2 < count; ++i) {
    const auto size = ftpNumber<uint64_t>(words[i - 1].text);
    if (!size) continue;
    auto date = dateInDigits(&words[i]);
    if (!date && i + 3 < count) date = dateWithMonthName(&words[i], now);
    if (!date) continue;
    item->entry.attributes.fileSize = byteCount(*size);
    item->entry.attributes.modificationDate = date->date;
    item->links = ftpNumber<uint64_t>(words[1].text).value_or(1);
    if (const auto owner = ftpNumber<uint32_t>(words[2].text); owner && i > 4) {
      item->entry.attributes.ownerAccountID = owner;
      item->entry.attributes.groupOwnerAccountID = ftpNumber<uint32_t>(words[3].text);
    }
    const size_t end = words[i + date->words - 1].end;
    // One blank, and then the name with all of its own.
    item->entry.name = line.substr(std::min(end + 1, line.size()));
    return true;
  }
  return false;
}

std::optional<FTPItem> itemOfUnixLine(std::string_view line, NSDate now) {
  if (line.size() < kModeLength) return std::nullopt;
  FTPItem item;
  if (!takeKind(line[0], &item)) return std::nullopt;
  if (line[1] != ' ') {
    const auto mode = modeOfLetters(line.substr(1, 9));
    if (!mode) return std::nullopt;
    if (item.entry.type != kNodeTypeAlias) item.entry.attributes.posixPermissions = mode;
  } else if (line.find('[') != 2) {
    return std::nullopt;  // the rights of a Novell server stand in brackets
  }
  if (!takeColumns(line, now, &item)) return std::nullopt;
  if (item.entry.type == kNodeTypeAlias) takeTarget(&item);
  if (item.entry.type == kNodeTypeFolder) item.entry.attributes.fileSize.reset();
  return item;
}

// "05-14-24  09:30AM", "05-14-2024  09:30".
std::optional<NSDate> dateOfDOS(std::string_view day, std::string_view time) {
  if (day.size() < 8 || day.size() > 10 || day[2] != '-' || day[5] != '-') return std::nullopt;
  const auto month = ftpNumber<int>(day.substr(0, 2));
  const auto dayOfMonth = ftpNumber<int>(day.substr(3, 2));
  const auto year = ftpNumber<int>(day.substr(6));
  std::tm fields = {};
  const bool hasHalf = time.ends_with('M') || time.ends_with('m');
  const std::string_view clock = hasHalf && time.size() > 2 ? time.substr(0, time.size() - 2) : time;
  if (!month || !dayOfMonth || !year || *month < 1 || *month > 12 || *dayOfMonth < 1 || *dayOfMonth > 31 ||
      *year < 0 || !takeTimeOfDay(clock, &fields)) {
    return std::nullopt;
  }
  if (hasHalf) {
    const bool isAfternoon = ftpContains(time, "pm");
    fields.tm_hour = fields.tm_hour % 12 + (isAfternoon ? 12 : 0);
  }
  fields.tm_year = *year >= 1900 ? *year - 1900 : *year < 70 ? *year + 100 : *year;
  fields.tm_mon = *month - 1;
  fields.tm_mday = *dayOfMonth;
  return dateOfFields(fields);
}

// "name [target]" of a link.
void takeBracketedTarget(FTPItem* item) {
  std::string& name = item->entry.name;
  const size_t open = name.rfind(" [");
  if (open == std::string::npos || open == 0 || !name.ends_with(']')) return;
  item->entry.targetPath = name.substr(open + 2, name.size() - open - 3);
  name.erase(open);
}

std::optional<FTPItem> itemOfDOSLine(std::string_view line) {
  // Between the kind of a folder and its name stand as many blanks as there is room for a size.
  constexpr size_t kBlanksAfterKind = 10;
  std::string_view rest = line;
  const std::string_view day = takeFTPWord(&rest);
  const std::string_view time = takeFTPWord(&rest);
  const std::string_view sizeOrKind = takeFTPWord(&rest);
  FTPItem item;
  item.entry.attributes.modificationDate = dateOfDOS(day, time);
  if (!item.entry.attributes.modificationDate || rest.size() < 2 || rest[0] != ' ') return std::nullopt;
  if (const auto size = ftpNumber<uint64_t>(sizeOrKind)) {
    item.entry.attributes.fileSize = byteCount(*size);
    item.entry.name = rest.substr(1);
    return item;
  }
  if (!sizeOrKind.starts_with('<') || !sizeOrKind.ends_with('>')) return std::nullopt;
  const size_t blanks = std::min(rest.find_first_not_of(' '), rest.size());
  // A longer kind leaves fewer of them.
  const size_t due = kBlanksAfterKind + std::string_view("<DIR>").size() - sizeOrKind.size();
  item.entry.name = rest.substr(sizeOrKind.size() < 15 ? std::min(blanks, due) : blanks);
  item.entry.type = kNodeTypeFolder;
  if (ftpContains(sizeOrKind, "symlink") || ftpContains(sizeOrKind, "junction")) {
    item.entry.type = kNodeTypeAlias;
    takeBracketedTarget(&item);
  } else if (!equalIgnoringCase(sizeOrKind, "<DIR>")) {
    return std::nullopt;
  }
  return item;
}

}  // namespace

std::optional<FTPItem> itemOfListLine(std::string_view line, NSDate now) {
  while (line.ends_with('\r')) line.remove_suffix(1);
  std::optional<FTPItem> item = itemOfUnixLine(line, now);
  if (!item) item = itemOfDOSLine(line);
  if (!item || item->entry.name.empty()) return std::nullopt;
  if (item->entry.name == "." || item->entry.name == "..") item->kind = FTPItem::Kind::kSelf;
  return item;
}

bool isListHeading(std::string_view line) {
  while (line.ends_with('\r')) line.remove_suffix(1);
  std::string_view rest = line;
  const std::string_view first = takeFTPWord(&rest);
  return first.empty() ||
         (equalIgnoringCase(first, "total") && ftpNumber<uint64_t>(ftpTrimmed(rest)).has_value());
}

}  // namespace ombra
