// Errors in the keyed archive format: a binary property list with an object table.
#pragma once

#include <optional>

#include "platform/foundation/NSError.h"

namespace ombra {

class NSKeyedArchiver {
 public:
  // The archive of an error with its user info and the errors beneath (at most eight). Values that have no
  // archived form become a text placeholder; an archive is always made, and always one that the reader below
  // accepts: what is nested too deeply, longer than 4 MiB or beyond some thousand values is cut. Of a null
  // error, an archive of nothing.
  static NSData archivedDataWithRootObject(const NSErrorRef& error);
};

class NSKeyedUnarchiver {
 public:
  // The error in `data`; absent, with `reason` filled, for anything that is not such an archive. Hostile
  // input is bounded in depth, counts, lengths and references before the property-list library sees it.
  static NSErrorRef unarchivedError(const NSData& data, std::string* reason);
};

}  // namespace ombra
