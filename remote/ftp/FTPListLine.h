// The lines of LIST, which no standard describes: as Unix's ls and as DOS write them.
#pragma once

#include <optional>
#include <string_view>

#include "remote/ftp/FTPFacts.h"

namespace ombra {

// Absent when the line is no item ("total 12", an empty line, a greeting). Names keep their blanks. A date
// without a year is the last one before `now` (a day of grace for clocks and zones); times are taken for UTC,
// since nothing tells the server's zone.
std::optional<FTPItem> itemOfListLine(std::string_view line, NSDate now);

// Whether the line is one that listings have besides their items, so that it needs no item.
bool isListHeading(std::string_view line);

}  // namespace ombra
