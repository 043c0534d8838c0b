// The lines of MLSD and MLST: "type=file;size=1024;modify=20240514093000; name".
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "remote/Session.h"

namespace ombra {

// One item, as a server lists it.
struct FTPItem {
  enum class Kind {
    kItem,     // entry.type says what
    kSelf,     // the listed folder or its parent
    kUnknown,  // of a kind that has no place in a listing
  };
  RemoteEntry entry;
  Kind kind = Kind::kItem;
  std::string permissions;  // the "perm" fact, lower case; empty when it was not told
  bool tellsPermissions = false;
  uint64_t links = 1;  // names that the file has
};

// Absent when the line is none of that form. The name of an MLST may be a whole path.
std::optional<FTPItem> itemOfFacts(std::string_view line);

// "20240514093000", with or without a fraction, in UTC. Absent when it is no date.
std::optional<NSDate> dateOfFTPTime(std::string_view text);
// The reverse, whole seconds; absent for years that it cannot write.
std::optional<std::string> ftpTimeOfDate(NSDate date);

}  // namespace ombra
