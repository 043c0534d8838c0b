// Dates as texts.
#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/NSDate.h"

namespace ombra {

// Formats dates in the machine's local time. A small value; one object is not to be changed and used at once.
//
// The format's fields, each a run of one letter: "yyyy" year, "MM" month, "dd" day, "HH" hour of 24, "mm"
// minute, "ss" second, "S…" as many digits of the second's fraction (cut, not rounded). The length of a run
// is the least number of digits. Everything else stands for itself.
class NSDateFormatter {
 public:
  NSDateFormatter() = default;
  explicit NSDateFormatter(std::string_view dateFormat) : iDateFormat(dateFormat) {}

  void setDateFormat(std::string_view format) { iDateFormat = format; }
  const std::string& dateFormat() const { return iDateFormat; }
  std::string stringFromDate(NSDate date) const;

 private:
  std::string iDateFormat;
};

}  // namespace ombra
