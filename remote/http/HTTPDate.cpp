#include "remote/http/HTTPDate.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <ctime>

namespace ombra {

namespace {

constexpr std::array<std::string_view, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::array<std::string_view, 7> kDays{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr int64_t kNanoseconds = 1000000000;

struct Moment {
  int year = 0;
  int month = 0;  // from 1
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// Days since 1970-01-01 in the calendar that is counted on backwards.
int64_t daysOfDate(int year, int month, int day) {
  const int64_t y = month <= 2 ? year - 1 : year;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yearOfEra = y - era * 400;
  const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

int daysInMonth(int year, int month) {
  if (month == 2) return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 29 : 28;
  return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

// Seconds since 1970. The years are those whose nanoseconds fit.
std::optional<int64_t> secondsOf(const Moment& moment) {
  if (moment.year < 1678 || moment.year > 2261 || moment.month < 1 || moment.month > 12) return std::nullopt;
  if (moment.day < 1 || moment.day > daysInMonth(moment.year, moment.month)) return std::nullopt;
  // A leap second counts as the first of the next minute.
  if (moment.hour > 23 || moment.minute > 59 || moment.second > 60) return std::nullopt;
  const int64_t days = daysOfDate(moment.year, moment.month, moment.day);
  return ((days * 24 + moment.hour) * 60 + moment.minute) * 60 + moment.second;
}

// Reads a text from the left; once something was missing, nothing is found any more.
class Reader {
 public:
  explicit Reader(std::string_view text) : iText(text) {}

  bool failed() const { return iFailed; }
  bool atEnd() const { return !iFailed && iText.empty(); }
  std::string_view rest() const { return iText; }

  void skip(char expected) { iFailed = !take(expected) || iFailed; }
  bool take(char wanted) {
    if (iFailed || iText.empty() || iText.front() != wanted) return false;
    iText.remove_prefix(1);
    return true;
  }
  void skipBlanks() {
    while (take(' ')) {
    }
  }
  void skipLetters() {
    while (!iText.empty() && ((iText.front() | 0x20) >= 'a' && (iText.front() | 0x20) <= 'z'))
      iText.remove_prefix(1);
  }
  // Digits, at least and at most so many.
  int number(size_t fewest, size_t most) {
    int value = 0;
    size_t count = 0;
    while (count < most && count < iText.size() && iText[count] >= '0' && iText[count] <= '9')
      value = value * 10 + (iText[count++] - '0');
    if (count < fewest) iFailed = true;
    if (!iFailed) iText.remove_prefix(count);
    return value;
  }
  int month() {
    for (size_t i = 0; i < kMonths.size(); ++i) {
      if (!iText.starts_with(kMonths[i])) continue;
      iText.remove_prefix(kMonths[i].size());
      return static_cast<int>(i) + 1;
    }
    iFailed = true;
    return 0;
  }
  void time(Moment* moment) {
    moment->hour = number(2, 2);
    skip(':');
    moment->minute = number(2, 2);
    skip(':');
    moment->second = number(2, 2);
  }

 private:
  std::string_view iText;
  bool iFailed = false;
};

int yearOfTwoDigits(int digits, NSDate now) {
  const auto seconds = static_cast<time_t>(now.nanosecondsSince1970() / kNanoseconds);
  tm parts{};
  gmtime_r(&seconds, &parts);
  const int present = parts.tm_year + 1900;
  const int year = present - present % 100 + digits;
  return year > present + 50 ? year - 100 : year;
}

// "06 Nov 1994 08:49:37 GMT" or "06-Nov-94 08:49:37 GMT", after the comma.
Moment momentAfterComma(Reader& reader, NSDate now) {
  Moment moment;
  reader.skipBlanks();
  moment.day = reader.number(1, 2);
  const bool dashed = reader.take('-');
  if (!dashed) reader.skip(' ');
  moment.month = reader.month();
  reader.skip(dashed ? '-' : ' ');
  moment.year = reader.number(2, 4);
  if (moment.year < 100) moment.year = yearOfTwoDigits(moment.year, now);
  reader.skip(' ');
  reader.time(&moment);
  return moment;
}

// "Nov  6 08:49:37 1994", after the day's name.
Moment momentOfAsctime(Reader& reader) {
  Moment moment;
  reader.skip(' ');
  moment.month = reader.month();
  reader.skip(' ');
  reader.skipBlanks();
  moment.day = reader.number(1, 2);
  reader.skip(' ');
  reader.time(&moment);
  reader.skip(' ');
  moment.year = reader.number(4, 4);
  return moment;
}

std::optional<NSDate> dateOfSeconds(std::optional<int64_t> seconds, int64_t nanoseconds) {
  if (!seconds) return std::nullopt;
  return NSDate::dateWithNanoseconds(*seconds * kNanoseconds + nanoseconds);
}

// ".25" and "" alike; digits beyond nanoseconds are dropped.
int64_t fraction(Reader& reader) {
  if (!reader.take('.') && !reader.take(',')) return 0;
  int64_t value = reader.number(1, 1);
  int64_t unit = kNanoseconds / 10;
  value *= unit;
  while (!reader.failed() && !reader.rest().empty() && reader.rest().front() >= '0' &&
         reader.rest().front() <= '9') {
    unit /= 10;
    value += reader.number(1, 1) * unit;
  }
  return value;
}

// "Z", "+01:00" or "+0100": seconds east of Greenwich.
int64_t zoneOffset(Reader& reader) {
  if (reader.take('Z') || reader.take('z')) return 0;
  const int64_t sign = reader.take('-') ? -1 : 1;
  if (sign == 1) reader.skip('+');
  const int64_t hours = reader.number(2, 2);
  reader.take(':');
  return sign * (hours * 60 + reader.number(2, 2)) * 60;
}

}  // namespace

std::optional<NSDate> dateOfHTTPText(std::string_view text, NSDate now) {
  Reader reader(text);
  reader.skipBlanks();
  reader.skipLetters();
  const bool hasComma = reader.take(',');
  const Moment moment = hasComma ? momentAfterComma(reader, now) : momentOfAsctime(reader);
  reader.skipBlanks();
  const std::string_view zone = reader.rest();
  const bool isKnownZone = zone.empty() || zone == "GMT" || zone == "UTC" || zone == "+0000";
  if (reader.failed() || !isKnownZone) return std::nullopt;
  return dateOfSeconds(secondsOf(moment), 0);
}

std::string httpTextOfDate(NSDate date) {
  int64_t seconds = date.nanosecondsSince1970() / kNanoseconds;
  if (date.nanosecondsSince1970() % kNanoseconds < 0) --seconds;
  const auto time = static_cast<time_t>(seconds);
  tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT", kDays[static_cast<size_t>(parts.tm_wday)],
                     parts.tm_mday, kMonths[static_cast<size_t>(parts.tm_mon)], parts.tm_year + 1900,
                     parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::optional<NSDate> dateOfISO8601Text(std::string_view text) {
  Reader reader(text);
  Moment moment;
  moment.year = reader.number(4, 4);
  reader.skip('-');
  moment.month = reader.number(2, 2);
  reader.skip('-');
  moment.day = reader.number(2, 2);
  if (!reader.take('t')) reader.skip('T');
  reader.time(&moment);
  const int64_t nanoseconds = fraction(reader);
  const int64_t offset = zoneOffset(reader);
  std::optional<int64_t> seconds = secondsOf(moment);
  if (!reader.atEnd() || !seconds) return std::nullopt;
  return dateOfSeconds(*seconds - offset, nanoseconds);
}

}  // namespace ombra
