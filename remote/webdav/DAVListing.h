// A folder's listing out of an answer to PROPFIND.
#pragma once

#include <cstdint>
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

// Sorts the responses, as they come, into the item itself and what lies directly in it; what lies anywhere
// else is left out, and so are names that cannot be shown and the names of uploads. A server behind a proxy
// may name its items by other paths than it was asked for: the item that all others lie in is then taken for
// the folder. Nothing but the children, and little besides, is kept.
class DAVListingBuilder {
 public:
  // `path`: what was asked for, decoded.
  explicit DAVListingBuilder(std::string_view path);

  void add(DAVResponse response);
  // The listing; the builder is at its end.
  DAVListing finish();

 private:
  // Where an item lies.
  struct Place {
    explicit Place(std::string_view href);
    size_t length() const { return parent.size() + name.size() + (hasParent ? 1 : 0); }
    std::string path() const;

    std::string parent;
    std::string name;
    bool hasParent = false;
    bool isRelative = false;  // a bare name: in the folder that was asked for
  };
  // The item of the shortest path so far, the first of those: the folder, if it is called by another name.
  struct Shortest {
    Place place;
    std::optional<size_t> child;  // its index, when it is kept as one
    DAVResponse response;
  };

  std::optional<size_t> addChild(Place& place, const DAVResponse& response);
  void compare(Shortest candidate);
  void noteParent(const std::string& parent);
  bool isShortestTheFolder() const;

  const std::string iAsked;
  DAVListing iListing;
  std::vector<bool> iAreInAsked;  // the children, one by one
  size_t iItems = 0;              // besides the item itself, and without the names of uploads
  // As long as the item itself has not come under the name that was asked for.
  std::optional<Shortest> iShortest;
  std::optional<std::string> iParent;  // of the first of the others
  bool iHaveOneParent = true;          // all of the others
};

// The listing in an answer 207 while it arrives.
class DAVListingReader {
 public:
  static constexpr uint64_t kLongest = uint64_t{256} << 20;

  explicit DAVListingReader(std::string_view path, uint64_t longest = kLongest);
  DAVListingReader(const DAVListingReader&) = delete;
  DAVListingReader& operator=(const DAVListingReader&) = delete;

  // False once there is too much of it: then nothing more needs to be read. A document that is refused for
  // other reasons is read to its end: the connection may be needed, and may be lost before, which is another
  // failure.
  [[nodiscard]] bool add(std::string_view bytes);
  // Absent, with the reason in words, when it is no listing. The reader is at its end.
  std::optional<DAVListing> finish(std::string* reason);

 private:
  const uint64_t iLongest;
  uint64_t iLength = 0;
  DAVListingBuilder iBuilder;
  DAVMultistatusReader iReader;
};

// Size, dates and kind, as far as they were told.
NSFileAttributes attributesOfDAVProperties(const DAVProperties& properties);

}  // namespace ombra
