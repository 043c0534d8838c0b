// What a listing has told of the links in it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "remote/Session.h"

namespace ombra {

// Answers questions about links and their targets without asking the server again, for as long as the
// connection is held that listed them and has changed nothing. Of one thread.
class KnownLinks {
 public:
  // What a listing told of a link, and with it of what the link leads to.
  void add(const std::string& linkPath, const LinkResolution& resolution);
  void clear();
  // Of the link, or of a target that is known to be no link itself; absent when nothing is known of the path.
  std::optional<LinkResolution> resolution(std::string_view path) const;
  // Of a target, absent when nothing is known of the path; `attributes` is absent inside when the target is
  // known not to exist.
  struct Target {
    std::optional<NSFileAttributes> attributes;
    bool isDirectory = false;
  };
  std::optional<Target> target(std::string_view path) const;

 private:
  std::map<std::string, LinkResolution, std::less<>> iLinks;
  std::map<std::string, Target, std::less<>> iTargets;
};

}  // namespace ombra
