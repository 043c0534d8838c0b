// Folders that are listed before they are asked for.
#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "remote/Ahead.h"
#include "remote/Session.h"
#include "remote/Walks.h"

namespace ombra {

// Lists the folders that a walk comes to next. Thread-safe.
class ListingsAhead {
 public:
  using Entries = std::vector<RemoteEntry>;
  using Request = Ahead<Entries>::Request;

  // `room`: as of Ahead.
  ListingsAhead(Walks& walks, std::function<int()> room, Ahead<Entries>::Fetch list);

  // `folder` is about to be listed: the listing, when it can be had. Waits for one that is being made. To be
  // told to `listed` as well.
  std::optional<Entries> take(std::string_view folder);
  // What the folder holds; `seconds`: how long the server was asked for, absent when it was not. Begins what
  // comes next on a walk. Whether the folder was not known before.
  bool listed(std::string_view folder, const Entries& entries, std::optional<double> seconds);
  size_t count() const { return iAhead.count(); }
  size_t underWay() const { return iAhead.underWay(); }
  // Nothing is begun any more.
  void stop() { iAhead.stop(); }

 private:
  std::vector<Walks::Item> guess(std::string_view folder, bool hasFolders);

  Walks& iWalks;
  Ahead<Entries> iAhead;
};

}  // namespace ombra
