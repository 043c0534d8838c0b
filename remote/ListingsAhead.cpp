#include "remote/ListingsAhead.h"

#include <algorithm>
#include <iterator>

#include "remote/RemotePaths.h"

namespace ombra {
namespace {

// Dates of folders do not matter: what is too old is not handed out.
constexpr int64_t kAnyDate = 0;

Walks::Listing worthRemembering(const ListingsAhead::Entries& entries) {
  Walks::Listing known;
  for (const RemoteEntry& entry : entries) {
    const auto& modified = entry.attributes.modificationDate;
    if (entry.type == kNodeTypeFolder) {
      known.add(entry.name, Walks::Kind::kFolder, kAnyDate, std::nullopt);
    } else if (entry.type == kNodeTypeFile && modified) {
      known.add(entry.name, Walks::Kind::kFile, kc_timespec(*modified).tv_sec, entry.attributes.fileSize);
    }
  }
  return known;
}

}  // namespace

ListingsAhead::ListingsAhead(Walks& walks, std::function<int()> room, Ahead<Entries>::Fetch list)
    : iWalks(walks), iAhead("listing ahead", walks, std::move(room), std::move(list)) {}

std::optional<ListingsAhead::Entries> ListingsAhead::take(std::string_view folder) {
  (void)iWalks.reached(folder, Walks::Kind::kFolder);
  std::optional<Ahead<Entries>::Taken> taken = iAhead.take(folder);
  if (!taken) return std::nullopt;
  // What links lead to may have been changed anywhere.
  const bool hasLinks = std::any_of(taken->answer.begin(), taken->answer.end(), [](const RemoteEntry& entry) {
    return static_cast<bool>(entry.resolution);
  });
  if (hasLinks && iWalks.changes() != taken->changes) return std::nullopt;
  return std::move(taken->answer);
}

bool ListingsAhead::listed(std::string_view folder, const Entries& entries, std::optional<double> seconds) {
  Walks::Listing known = worthRemembering(entries);
  const bool hasFolders = known.has(Walks::Kind::kFolder);
  const bool isNew = iWalks.listed(folder, std::move(known));
  iAhead.passed(seconds);
  iAhead.begin(guess(folder, hasFolders));
  return isNew;
}

// Into a folder first, then on to its neighbours, then to the neighbour of the folder around it: no further,
// since before the ones behind that come the folders in it, which nobody knows yet.
std::vector<Walks::Item> ListingsAhead::guess(std::string_view folder, bool hasFolders) {
  constexpr size_t kMost = AheadLimits::kMost;
  if (hasFolders) return iWalks.firstIn(folder, Walks::Kind::kFolder, kMost);
  std::vector<Walks::Item> guessed = iWalks.next(folder, Walks::Kind::kFolder, kMost, Walks::Reach::kForward);
  if (guessed.size() < kMost) {
    std::vector<Walks::Item> above =
        iWalks.next(parentOfRemotePath(folder), Walks::Kind::kFolder, 1, Walks::Reach::kForward);
    std::move(above.begin(), above.end(), std::back_inserter(guessed));
  }
  return guessed;
}

}  // namespace ombra
