// A folder's listing out of an answer to PROPFIND.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/Session.h"
#include "remote/webdav/DAVMultistatus.h"

namespace ombra {

// What a PROPFIND told about a path.
struct DAVListing {
  DAVResponse self;
  std::vector<RemoteEntry> children;
  bool hasSelf = false;
  // Whether there is anything besides the item itself and the names of uploads, shown or not.
  bool holdsItems = false;
};

// Sorts the responses into the item itself and what lies directly in it; what lies anywhere else is left out,
// and so are names that cannot be shown and the names of uploads. `path`: what was asked for, decoded. A
// server behind a proxy may name its items by other paths than it was asked for: the item that all others lie
// in is then taken for the folder.
DAVListing listingOfDAVResponses(std::vector<DAVResponse> responses, std::string_view path);

// Size, dates and kind, as far as they were told.
NSFileAttributes attributesOfDAVProperties(const DAVProperties& properties);

}  // namespace ombra
