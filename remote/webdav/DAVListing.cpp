#include "remote/webdav/DAVListing.h"

#include <algorithm>

#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/URLEncoding.h"

namespace ombra {

namespace {

// Without the scheme and host that some servers put in front.
std::string_view pathOfHref(std::string_view href) {
  const size_t scheme = href.find("://");
  if (scheme == std::string_view::npos || scheme > href.find('/')) return href;
  const size_t slash = href.find('/', scheme + 3);
  return slash == std::string_view::npos ? "/" : href.substr(slash);
}

std::string withoutSlashes(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

bool isThere(const DAVResponse& response) { return response.status == 0 || response.status / 100 == 2; }

}  // namespace

// Split before it is decoded: an encoded slash is part of a name. The root's is empty.
DAVListingBuilder::Place::Place(std::string_view href) {
  std::string_view path = pathOfHref(href);
  isRelative = !path.starts_with('/');
  while (path.ends_with('/')) path.remove_suffix(1);
  const size_t slash = path.rfind('/');
  hasParent = slash != std::string_view::npos;
  if (hasParent) parent = percentDecoded(path.substr(0, slash));
  name = percentDecoded(path.substr(hasParent ? slash + 1 : 0));
}

std::string DAVListingBuilder::Place::path() const { return hasParent ? parent + '/' + name : name; }

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

DAVListingBuilder::DAVListingBuilder(std::string_view path) : iAsked(withoutSlashes(path)) {}

void DAVListingBuilder::add(DAVResponse response) {
  Place place(response.href);
  if (iListing.hasSelf) {
    addChild(place, response);
  } else if (!place.isRelative && place.length() == iAsked.size() && place.path() == iAsked) {
    iListing.hasSelf = true;
    iListing.self = std::move(response);
  } else {
    // The name goes to the child.
    Shortest candidate{place, std::nullopt, {}};
    candidate.child = addChild(place, response);
    candidate.response = std::move(response);
    compare(std::move(candidate));
  }
}

// The index of the child, when it may be one.
std::optional<size_t> DAVListingBuilder::addChild(Place& place, const DAVResponse& response) {
  if (isTemporaryName(place.name)) return std::nullopt;
  ++iItems;
  const bool isInAsked = place.isRelative ? place.parent.empty() : place.parent == iAsked;
  // Another folder may turn out to be the one, as long as that which was asked for has not come.
  if (iListing.hasSelf && !isInAsked) return std::nullopt;
  if (!isThere(response) || !isShownName(place.name)) return std::nullopt;
  RemoteEntry& entry = iListing.children.emplace_back();
  entry.name = std::move(place.name);
  entry.type = response.properties.isCollection ? kNodeTypeFolder : kNodeTypeFile;
  entry.attributes = attributesOfDAVProperties(response.properties);
  iAreInAsked.push_back(isInAsked);
  return iListing.children.size() - 1;
}

void DAVListingBuilder::compare(Shortest candidate) {
  if (iShortest && candidate.place.length() >= iShortest->place.length()) {
    noteParent(candidate.place.parent);
    return;
  }
  if (iShortest) noteParent(iShortest->place.parent);
  iShortest = std::move(candidate);
}

void DAVListingBuilder::noteParent(const std::string& parent) {
  if (!iParent) iParent = parent;
  iHaveOneParent = iHaveOneParent && parent == *iParent;
}

// Whether the shortest path is that of the item that all others lie directly in.
bool DAVListingBuilder::isShortestTheFolder() const {
  if (!iShortest || iShortest->place.isRelative || !iHaveOneParent) return false;
  if (iParent) return *iParent == iShortest->place.path();
  // One item alone, of another path, may as well be the only child.
  return iShortest->place.parent != iAsked;
}

DAVListing DAVListingBuilder::finish() {
  std::vector<RemoteEntry>& children = iListing.children;
  if (!iListing.hasSelf && isShortestTheFolder()) {
    iListing.hasSelf = true;
    if (!isTemporaryName(iShortest->place.name)) --iItems;
    if (iShortest->child) children.erase(children.begin() + static_cast<ptrdiff_t>(*iShortest->child));
    iListing.self = std::move(iShortest->response);
  } else {
    size_t index = 0;
    std::erase_if(children, [this, &index](const RemoteEntry&) { return !iAreInAsked[index++]; });
  }
  iListing.holdsItems = iItems > 0;
  return std::move(iListing);
}

DAVListingReader::DAVListingReader(std::string_view path, uint64_t longest)
    : iLongest(longest),
      iBuilder(path),
      iReader([this](DAVResponse response) { iBuilder.add(std::move(response)); }) {}

bool DAVListingReader::add(std::string_view bytes) {
  iLength += bytes.size();
  if (iLength > iLongest) return false;
  iReader.add(bytes);
  return true;
}

std::optional<DAVListing> DAVListingReader::finish(std::string* reason) {
  if (iLength > iLongest) {
    *reason = "the answer is too long";
  } else if (iReader.finish()) {
    return iBuilder.finish();
  } else {
    *reason = iReader.reason();
  }
  return std::nullopt;
}

}  // namespace ombra
