#include "remote/FilesAhead.h"

#include "remote/RemotePaths.h"

namespace ombra {
namespace {

// Some of them are long.
constexpr size_t kGuessed = 16;

std::vector<Walks::Item> onlySmall(std::vector<Walks::Item> files) {
  std::erase_if(files,
                [](const Walks::Item& file) { return !file.size || *file.size > FilesAhead::kMostBytes; });
  return files;
}

}  // namespace

FilesAhead::FilesAhead(Walks& walks, std::function<int()> room, Ahead<std::string>::Fetch read)
    : iWalks(walks), iAhead("reading ahead", walks, std::move(room), std::move(read)) {}

std::optional<std::string> FilesAhead::take(std::string_view path, const std::function<bool()>& stops) {
  (void)iWalks.reached(path, Walks::Kind::kFile);
  std::optional<Ahead<std::string>::Taken> taken = iAhead.take(path, stops, next(path));
  // Any change, since some servers have more than one name for a file.
  if (!taken || iWalks.changes() != taken->changes) return std::nullopt;
  return std::move(taken->answer);
}

void FilesAhead::wasRead(std::string_view path, uint64_t length, std::optional<double> seconds) {
  // How long a long file took says nothing of the way.
  iAhead.passed(length <= kMostBytes ? seconds : std::nullopt);
  iAhead.begin(next(path));
}

void FilesAhead::listed(std::string_view folder, bool isNew) {
  iAhead.callOff([folder](const std::string& path) { return parentOfRemotePath(path) == folder; });
  if (isNew) iAhead.begin(onlySmall(iWalks.firstIn(folder, Walks::Kind::kFile, kGuessed)));
}

void FilesAhead::lookedAt(std::string_view path) {
  iAhead.callOff([path](const std::string& other) { return other == path; });
}

std::vector<Walks::Item> FilesAhead::next(std::string_view path) {
  return onlySmall(iWalks.next(path, Walks::Kind::kFile, kGuessed, Walks::Reach::kForward));
}

}  // namespace ombra
