// Dates as servers over HTTP write them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSDate.h"

namespace ombra {

// "Sun, 06 Nov 1994 08:49:37 GMT", and the two older forms that may still be met: "Sunday, 06-Nov-94 08:49:37
// GMT" (two-digit years are the nearest that is not 50 years ahead of `now`) and "Sun Nov  6 08:49:37 1994".
// Absent when it is none of them or no date of the calendar. The name of the day is not looked at.
std::optional<NSDate> dateOfHTTPText(std::string_view text, NSDate now = NSDate::date());
// The first form above; fractions of a second are dropped.
std::string httpTextOfDate(NSDate date);
// "1997-12-01T17:42:21Z", with a fraction of a second and with an offset ("-08:00") too. Absent for anything
// else.
std::optional<NSDate> dateOfISO8601Text(std::string_view text);

}  // namespace ombra
