// Small files that are read before they are asked for.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/Ahead.h"
#include "remote/Walks.h"

namespace ombra {

// Reads the small files that a walk comes to next, into memory. A file is handed out only when nothing newer
// was told of it since: attributes that somebody has seen are never those of another content. Thread-safe.
class FilesAhead {
 public:
  using Request = Ahead<std::string>::Request;
  // Longer ones are worth a request of their own, and might be for nothing.
  static constexpr size_t kMostBytes = 32 * 1024;

  // `read`: the whole content; it fails for more than `kMostBytes`, too. `room`: as of Ahead.
  FilesAhead(Walks& walks, std::function<int()> room, Ahead<std::string>::Fetch read);

  // The file at `path` is about to be read from its beginning: its content, when it can be had. Waits for one
  // that is being read, unless `stops` answers true (at first, and at each `wake`). To be told to `wasRead`
  // as well.
  std::optional<std::string> take(std::string_view path, const std::function<bool()>& stops);
  // `length` bytes of it were read; `seconds`: how long the server took, absent when it was not asked. Begins
  // what comes next on a walk.
  void wasRead(std::string_view path, uint64_t length, std::optional<double> seconds);
  // The folder was listed: what was read of its files before may be older than what is known of them now.
  // Begins the first ones when a walk comes there, which it does to a new folder.
  void listed(std::string_view folder, bool isNew);
  // The same for one item that was looked at.
  void lookedAt(std::string_view path);

  void wake() { iAhead.wake(); }
  size_t count() const { return iAhead.count(); }
  // Nothing is begun any more.
  void stop() { iAhead.stop(); }

 private:
  std::vector<Walks::Item> next(std::string_view path);

  Walks& iWalks;
  Ahead<std::string> iAhead;
};

}  // namespace ombra
