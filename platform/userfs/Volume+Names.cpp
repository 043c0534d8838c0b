// Folders and what is in them.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/userfs/RequestContext.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

// What a folder's group and all others may do.
constexpr mode_t kOthersBits = 0077;

bool isShowable(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

int refusalToCreate(std::string_view path) {
  // File managers would move what the user deletes into such a folder at the top of the volume; it would
  // count as kept, and is deleted with the rest of the redirected litter.
  if (path.substr(0, 7) == "/.Trash" && path.find('/', 1) == std::string_view::npos) return -EPERM;
  return 0;
}

int Volume::openFolder(const char* path, uint64_t* handle) {
  const std::string listed = listedPath(path);
  RequestContext::current().keepsListing = iFolders.wasListedWithin(listed, kListingSeconds);
  *handle = iFolders.open(listed, RequestContext::current().nodeID);
  return 0;
}

std::optional<std::vector<std::string>> Volume::names(const std::string& path, NSErrorRef* error) const {
  GMUserFileSystemDurability* durability = this->durability();
  return durability != nullptr ? durability->namesAsListedAtPath(path, error)
                               : delegate().contentsOfDirectoryAtPath(path, error);
}

FolderListing Volume::freshListing(uint64_t handle, const std::string& path, int* result) {
  NSErrorRef error;
  auto found = names(path, &error);
  if (!found) {
    *result = failure(error);
    // The library of every program takes that number for the end of a folder that was removed meanwhile: what
    // could not be listed would look empty, and be emptied by whoever mirrors it.
    if (*result == -ENOENT) *result = -EIO;
    return nullptr;
  }
  std::erase_if(*found, [](const std::string& name) { return !isShowable(name); });
  auto listing = std::make_shared<const std::vector<std::string>>(std::move(*found));
  iFolders.setListing(handle, listing);
  return listing;
}

bool Volume::fillEntry(const std::string& folder, const std::string& name, off_t next,
                       const EntryFiller& fillNext) const {
  const std::string path = stringByAppendingPathComponent(folder, name);
  struct stat entry {};
  const auto attributes = attributesAtPath(path);
  if (attributes) fill(&entry, *attributes, path);
  return fillNext(name.c_str(), attributes ? &entry : nullptr, next);
}

// Offsets: 0 is ".", 1 is "..", n + 2 the n-th name of the snapshot.
int Volume::readFolder(uint64_t handle, off_t offset, const EntryFiller& fillNext) {
  const auto path = iFolders.pathOfHandle(handle);
  if (!path) return 0;  // removed while it is open: it has no entries
  FolderListing listing = offset != 0 ? iFolders.listingOfHandle(handle) : nullptr;
  int result = 0;
  if (listing == nullptr) listing = freshListing(handle, *path, &result);
  if (listing == nullptr) return result;

  struct stat self {};
  if (offset < 2) {
    const auto attributes = attributesAtPath(*path);
    if (attributes) fill(&self, *attributes, *path);
  }
  if (offset < 1 && fillNext(".", &self, 1)) return 0;
  if (offset < 2 && fillNext("..", nullptr, 2)) return 0;
  for (size_t index = offset < 2 ? 0 : static_cast<size_t>(offset) - 2; index < listing->size(); ++index) {
    if (fillEntry(*path, (*listing)[index], static_cast<off_t>(index) + 3, fillNext)) return 0;
  }
  return 0;
}

int Volume::makeFolder(const char* path, mode_t mode) {
  const std::string listed = listedPath(path);
  if (const int refusal = refusalToCreate(listed); refusal != 0) return refusal;
  // The delegate has one answer for every refusal; that the name is taken is worth a better one.
  if (attributesAtPath(listed)) return -EEXIST;
  NSFileAttributes attributes;
  attributes.posixPermissions = static_cast<uint16_t>(mode & 07777);
  NSErrorRef error;
  if (!delegate().createDirectoryAtPath(listed, attributes, &error)) return failure(error);
  closeNewFolder(listed, mode);
  iFolders.noteEntry(listed, RequestContext::current().nodeID);
  return 0;
}

// The server chooses a new folder's permissions, and may give more than was asked for. A program that makes a
// folder for its owner alone relies on others not looking into it. Nothing is added to what the server chose,
// and one that cannot be told keeps nobody from making folders.
void Volume::closeNewFolder(const std::string& path, mode_t mode) {
  GMUserFileSystemDurability* durability = this->durability();
  const auto made = durability == nullptr ? std::nullopt : attributesAtPath(path);
  if (!made || !made->posixPermissions) return;
  const auto excess = static_cast<uint16_t>(*made->posixPermissions & ~mode & kOthersBits);
  if (excess == 0) return;
  NSFileAttributes attributes;
  attributes.posixPermissions = static_cast<uint16_t>(*made->posixPermissions & ~excess);
  NSErrorRef error;
  if (durability->changeAttributesWithoutContent(attributes, path, &error)) return;
  NSLog("\"{}\" could not be closed to others: {}", path,
        error == nullptr ? "the server did not say why" : error->localizedDescription());
}

int Volume::makeSymbolicLink(const char* target, const char* path) {
  const std::string listed = listedPath(path);
  if (const int refusal = refusalToCreate(listed); refusal != 0) return refusal;
  if (attributesAtPath(listed)) return -EEXIST;
  NSErrorRef error;
  if (!delegate().createSymbolicLinkAtPath(listed, target, &error)) return failure(error);
  iFolders.noteEntry(listed, RequestContext::current().nodeID);
  return 0;
}

std::string Volume::jailed(std::string target) const {
  if (!iSettings.jailSymlinks || !target.starts_with('/') || isAtOrBelow(target, iSettings.mountPath))
    return target;
  return target == "/" ? iSettings.mountPath : iSettings.mountPath + target;
}

// Programs take a link of no length for one without a target. Where the text is not known yet it stays 0.
off_t Volume::lengthOfLink(std::string_view path) const {
  GMUserFileSystemDurability* durability = this->durability();
  auto target = durability == nullptr ? std::nullopt : durability->knownDestinationOfSymbolicLinkAtPath(path);
  return target ? static_cast<off_t>(jailed(std::move(*target)).size()) : 0;
}

int Volume::readSymbolicLink(const char* path, char* buffer, size_t size) {
  NSErrorRef error;
  auto target = delegate().destinationOfSymbolicLinkAtPath(listedPath(path), &error);
  if (!target) return failure(error);
  *target = jailed(std::move(*target));
  if (size == 0) return -EINVAL;
  const size_t length = std::min(target->size(), size - 1);
  std::memcpy(buffer, target->data(), length);
  buffer[length] = '\0';
  return 0;
}

}  // namespace ombra
