#include "remote/webdav/DAVListing.h"

#include <algorithm>

#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/http/URLEncoding.h"

namespace ombra {

namespace {

// Without the scheme and host that some servers put in front.
std::string_view pathOfHref(std::string_view href) {
  const size_t scheme = href.find("://");
  if (scheme == std::string_view::npos || scheme > href.find('/')) return href;
  const size_t slash = href.find('/', scheme + 3);
  return slash == std::string_view::npos ? "/" : href.substr(slash);
}

// An item's place, split before it is decoded: an encoded slash is part of a name. The root's is empty.
struct Place {
  explicit Place(std::string_view href) {
    std::string_view path = pathOfHref(href);
    isRelative = !path.starts_with('/');
    while (path.ends_with('/')) path.remove_suffix(1);
    whole = percentDecoded(path);
    const size_t slash = path.rfind('/');
    if (slash != std::string_view::npos) parent = percentDecoded(path.substr(0, slash));
    name = percentDecoded(path.substr(slash == std::string_view::npos ? 0 : slash + 1));
  }
  std::string whole;
  std::string parent;
  std::string name;
  bool isRelative = false;  // a bare name: in the folder that was asked for
};

std::string withoutSlashes(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

// The index of the item itself: the one of the path that was asked for, else the one that all others lie
// directly in.
std::optional<size_t> indexOfSelf(const std::vector<Place>& places, const std::string& path) {
  for (size_t i = 0; i < places.size(); ++i) {
    if (!places[i].isRelative && places[i].whole == path) return i;
  }
  const auto shortest = std::min_element(places.begin(), places.end(), [](const Place& a, const Place& b) {
    return a.whole.size() < b.whole.size();
  });
  if (shortest == places.end() || shortest->isRelative) return std::nullopt;
  for (auto place = places.begin(); place != places.end(); ++place) {
    if (place != shortest && place->parent != shortest->whole) return std::nullopt;
  }
  // One item alone, of another path, may as well be the only child.
  const bool isChild = places.size() == 1 && shortest->parent == path;
  return isChild ? std::nullopt : std::optional<size_t>(shortest - places.begin());
}

}  // namespace

NSFileAttributes attributesOfDAVProperties(const DAVProperties& properties) {
  NSFileAttributes attributes;
  attributes.fileType =
      properties.isCollection ? NSFileTypeValue::NSFileTypeDirectory : NSFileTypeValue::NSFileTypeRegular;
  // What servers tell of a folder's length is anything.
  if (!properties.isCollection) attributes.fileSize = properties.contentLength.value_or(0);
  attributes.modificationDate = properties.lastModified;
  attributes.creationDate = properties.creationDate;
  return attributes;
}

DAVListing listingOfDAVResponses(std::vector<DAVResponse> responses, std::string_view path) {
  const std::string asked = withoutSlashes(path);
  std::vector<Place> places;
  places.reserve(responses.size());
  for (const DAVResponse& response : responses) places.emplace_back(response.href);
  const std::optional<size_t> self = indexOfSelf(places, asked);
  DAVListing listing;
  listing.hasSelf = self.has_value();
  const std::string folder = self ? places[*self].whole : asked;
  if (self) listing.self = std::move(responses[*self]);
  for (size_t i = 0; i < places.size(); ++i) {
    Place& place = places[i];
    if (i == self || isTemporaryName(place.name)) continue;
    listing.holdsItems = true;
    const bool isInFolder = place.isRelative ? place.parent.empty() : place.parent == folder;
    const bool isThere = responses[i].status == 0 || responses[i].status / 100 == 2;
    if (!isInFolder || !isThere || !isShownName(place.name)) continue;
    RemoteEntry entry;
    entry.name = std::move(place.name);
    entry.type = responses[i].properties.isCollection ? kNodeTypeFolder : kNodeTypeFile;
    entry.attributes = attributesOfDAVProperties(responses[i].properties);
    listing.children.push_back(std::move(entry));
  }
  return listing;
}

}  // namespace ombra
