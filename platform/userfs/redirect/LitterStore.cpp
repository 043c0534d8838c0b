#include "platform/userfs/redirect/LitterStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/foundation/DirectoryStream.h"
#include "platform/userfs/redirect/LocalFile.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

constexpr const char* kPathFile = "/path";
constexpr const char* kItem = "/item";
constexpr mode_t kPrivate = 0700;
constexpr size_t kLongestPath = 64 * 1024;
// A component of a local path may have 255 bytes.
constexpr size_t kLongestKey = 200;

std::string sha1Of(std::string_view text) {
  std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const unsigned byte : digest) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

std::string keyFor(std::string_view path) {
  std::string text;
  for (const char byte : path) {
    if (byte == '/') {
      text += "%2F";
    } else if (byte == '%') {
      text += "%25";
    } else {
      text += byte;
    }
  }
  return text;
}

void removeTree(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

int makeFolder(const std::string& path) {
  return mkdir(path.c_str(), kPrivate) == 0 || errno == EEXIST ? 0 : errno;
}

std::string messageOf(const std::string& folder, int number) {
  return "\"" + folder + "\" cannot be used: " + std::strerror(number);
}

}  // namespace

std::unique_ptr<LitterStore> LitterStore::open(std::string folder, bool hashesNames, std::string* reason) {
  int number = folder.starts_with('/') ? makeFolder(folder) : EINVAL;
  struct stat status {};
  if (number == 0 && lstat(folder.c_str(), &status) != 0) number = errno;
  if (number == 0 && !S_ISDIR(status.st_mode)) number = ENOTDIR;
  // Whoever else owns it could put anything into the volume.
  if (number == 0 && status.st_uid != geteuid()) number = EPERM;
  if (number == 0 && access(folder.c_str(), R_OK | W_OK | X_OK) != 0) number = errno;
  if (number != 0) {
    *reason = messageOf(folder, number);
    return nullptr;
  }
  std::unique_ptr<LitterStore> store(new LitterStore(std::move(folder), hashesNames));
  store->load();
  return store;
}

LitterStore::LitterStore(std::string folder, bool hashesNames)
    : iFolder(std::move(folder)), iHashesNames(hashesNames) {}

// What is not whole, or does not lie where its path says, is what a killed process left half done, or
// somebody else's: the folder may hold more than the store.
void LitterStore::load() {
  const DirectoryStream folder(opendir(iFolder.c_str()));
  if (folder == nullptr) return;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string key = entry->d_name;
    if (key == "." || key == "..") continue;
    const std::string room = iFolder + "/" + key;
    const auto path = LocalFile::contentOf(room + kPathFile, kLongestPath);
    struct stat status {};
    if (path && path->starts_with('/') && RedirectRules::litterInPath(*path) == *path &&
        keyOf(*path) == key && lstat((room + kItem).c_str(), &status) == 0) {
      note(*path, true);
    }
  }
}

std::string LitterStore::keyOf(std::string_view litter) const {
  if (iHashesNames) return sha1Of(litter);
  std::string key = keyFor(litter);
  return key.size() <= kLongestKey ? key : sha1Of(litter);
}

std::string LitterStore::roomOf(std::string_view litter) const { return iFolder + "/" + keyOf(litter); }

std::string LitterStore::localPath(std::string_view path) const {
  const std::string_view litter = RedirectRules::litterInPath(path);
  return roomOf(litter) + kItem + std::string(path.substr(litter.size()));
}

bool LitterStore::isKept(std::string_view litter) const {
  const MutexLock lock(iLock);
  const Names* names = iFolders.find(folderOf(litter));
  return names != nullptr && names->contains(nameOf(litter));
}

std::optional<std::string> LitterStore::find(std::string_view path) const {
  const std::string_view litter = RedirectRules::litterInPath(path);
  if (litter.empty() || !isKept(litter)) return std::nullopt;
  std::string local = localPath(path);
  struct stat status {};
  if (lstat(local.c_str(), &status) != 0) return std::nullopt;
  return local;
}

std::vector<std::string> LitterStore::namesInFolder(std::string_view folder) const {
  const MutexLock lock(iLock);
  std::vector<std::string> found;
  if (const Names* names = iFolders.find(folder)) {
    for (const auto& [name, isListed] : *names) {
      if (isListed) found.push_back(name);
    }
  }
  return found;
}

void LitterStore::note(std::string_view litter, bool isListed) {
  const MutexLock lock(iLock);
  iFolders[folderOf(litter)].insert_or_assign(std::string(nameOf(litter)), isListed);
}

void LitterStore::forget(std::string_view litter) {
  const MutexLock lock(iLock);
  Names* names = iFolders.find(folderOf(litter));
  if (names == nullptr) return;
  if (const auto found = names->find(nameOf(litter)); found != names->end()) names->erase(found);
  if (names->empty()) iFolders.all().erase(iFolders.all().find(folderOf(litter)));
}

int LitterStore::writePath(std::string_view litter) const {
  return LocalFile::write(roomOf(litter) + kPathFile, litter);
}

// A folder on the server may have the name of litter, and litter be made in it: the folders between are made
// here then.
int LitterStore::prepareRoom(std::string_view path) const {
  const std::string_view litter = RedirectRules::litterInPath(path);
  if (!isKept(litter)) {
    // What a failed attempt has left.
    removeTree(roomOf(litter));
    if (const int number = makeFolder(roomOf(litter)); number != 0) return number;
    if (const int number = writePath(litter); number != 0) return number;
  }
  const std::string item = roomOf(litter) + kItem;
  for (size_t end = litter.size(); end < path.size(); end = std::min(path.find('/', end + 1), path.size())) {
    const std::string folder = item + std::string(path.substr(litter.size(), end - litter.size()));
    if (const int number = makeFolder(folder); number != 0) return number;
  }
  return 0;
}

void LitterStore::removeRoom(std::string_view litter) const {
  unlink((roomOf(litter) + kPathFile).c_str());
  rmdir(roomOf(litter).c_str());
}

int LitterStore::make(std::string_view path, const std::function<int(const std::string&)>& create) {
  const std::string_view litter = RedirectRules::litterInPath(path);
  const int prepared = prepareRoom(path);
  const int number = prepared != 0 ? prepared : create(localPath(path));
  if (number == 0) {
    note(litter, true);
  } else if (!isKept(litter)) {
    removeTree(roomOf(litter));
  }
  return number;
}

int LitterStore::makeHiddenFile(std::string_view path, std::string_view content) {
  const int number =
      make(path, [content](const std::string& local) { return LocalFile::write(local, content); });
  if (number == 0) note(path, false);
  return number;
}

void LitterStore::list(std::string_view path) {
  const std::string_view litter = RedirectRules::litterInPath(path);
  if (isKept(litter)) note(litter, true);
}

int LitterStore::remove(std::string_view path) {
  const std::string_view litter = RedirectRules::litterInPath(path);
  if (::remove(localPath(path).c_str()) != 0) return errno == EEXIST ? ENOTEMPTY : errno;
  if (path != litter) return 0;
  forget(litter);
  removeRoom(litter);
  return 0;
}

int LitterStore::move(std::string_view from, std::string_view to) {
  const std::string source = localPath(from);
  const int number = make(to, [&source](const std::string& target) {
    return rename(source.c_str(), target.c_str()) == 0 ? 0 : errno;
  });
  const std::string_view litter = RedirectRules::litterInPath(from);
  if (number != 0 || from != litter) return number;
  forget(litter);
  removeRoom(litter);
  return 0;
}

void LitterStore::dropFolder(std::string_view folder) {
  std::vector<std::pair<std::string, Names>> taken;
  {
    const MutexLock lock(iLock);
    taken = iFolders.extractSubtree(folder);
  }
  for (const auto& [path, names] : taken) {
    for (const auto& [name, isListed] : names) removeTree(roomOf((path == "/" ? "" : path) + "/" + name));
  }
}

void LitterStore::moveFolder(std::string_view from, std::string_view to) {
  std::vector<std::pair<std::string, Names>> taken;
  {
    const MutexLock lock(iLock);
    taken = iFolders.extractSubtree(from);
  }
  for (const auto& [path, names] : taken) {
    for (const auto& [name, isListed] : names) {
      const std::string old = path + "/" + name;
      const std::string moved = movedPath(path, from, to) + "/" + name;
      removeTree(roomOf(moved));
      if (rename(roomOf(old).c_str(), roomOf(moved).c_str()) == 0 && writePath(moved) == 0) {
        note(moved, isListed);
      } else {
        removeTree(roomOf(moved));
      }
    }
  }
}

bool LitterStore::holdsAtOrBelow(std::string_view folder) const {
  const MutexLock lock(iLock);
  for (auto entry = iFolders.all().lower_bound(folder); entry != iFolders.all().end(); ++entry) {
    if (isAtOrBelow(entry->first, folder)) return true;
    if (entry->first.compare(0, folder.size(), folder) > 0) return false;
  }
  return false;
}

}  // namespace ombra
