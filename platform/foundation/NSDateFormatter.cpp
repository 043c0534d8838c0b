#include "platform/foundation/NSDateFormatter.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace ombra {
namespace {

// `count` digits of the fraction; beyond nanoseconds there are only zeros.
std::string fraction(long nanoseconds, size_t count) {
  std::string digits = fmt::format("{:09}", nanoseconds);
  digits.resize(count, '0');
  return digits;
}

std::string field(char letter, size_t width, const tm& local, long nanoseconds) {
  switch (letter) {
    case 'y':
      return fmt::format("{:0{}}", local.tm_year + 1900, width);
    case 'M':
      return fmt::format("{:0{}}", local.tm_mon + 1, width);
    case 'd':
      return fmt::format("{:0{}}", local.tm_mday, width);
    case 'H':
      return fmt::format("{:0{}}", local.tm_hour, width);
    case 'm':
      return fmt::format("{:0{}}", local.tm_min, width);
    case 's':
      return fmt::format("{:0{}}", local.tm_sec, width);
    case 'S':
      return fraction(nanoseconds, width);
    default:
      return std::string(width, letter);
  }
}

}  // namespace

std::string NSDateFormatter::stringFromDate(NSDate date) const {
  const timespec time = kc_timespec(date);
  tm local{};
  localtime_r(&time.tv_sec, &local);
  std::string result;
  for (size_t begin = 0; begin < iDateFormat.size();) {
    const size_t end = std::min(iDateFormat.find_first_not_of(iDateFormat[begin], begin), iDateFormat.size());
    result += field(iDateFormat[begin], end - begin, local, time.tv_nsec);
    begin = end;
  }
  return result;
}

}  // namespace ombra
