#include "remote/KCNode.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

KCNode::KCNode(std::string path) { KCNode::setPath(std::move(path)); }

KCNode::~KCNode() = default;

void KCNode::locked_setFlag(Flag flag, bool value) {
  iFlags = static_cast<uint8_t>(value ? iFlags | flag : iFlags & ~flag);
}

KCNode::Rare& KCNode::rare() const {
  if (iRare == nullptr) iRare = std::make_unique<Rare>();
  return *iRare;
}

RecursiveMutex& KCNode::objectLock() const {
  SmallMutexLock lock(iFieldLock);
  return rare().objectLock;
}

std::string KCNode::path() const {
  SmallMutexLock lock(iFieldLock);
  return locked_path();
}

std::string KCNode::locked_path() const {
  std::string path = iPath == nullptr ? std::string() : *iPath;
  if (locked_has(kPathEndsInName)) path += iDisplayName;
  return path;
}

void KCNode::setPath(std::string path) {
  std::string filename = lastPathComponent(path);
  std::string displayName = displayNameForFilename(filename);
  const bool endsInName = std::string_view(path).substr(path.rfind('/') + 1) == displayName;
  if (endsInName) path.resize(path.size() - displayName.size());
  FolderPath shared =
      endsInName ? sharedFolderPath(path) : std::make_shared<const std::string>(std::move(path));
  SmallMutexLock lock(iFieldLock);
  iPath.swap(shared);
  locked_setFlag(kPathEndsInName, endsInName);
  iDisplayName = std::move(displayName);
  iHash = 0;
  locked_setFilename(std::move(filename));
}

std::string KCNode::displayName() const {
  SmallMutexLock lock(iFieldLock);
  return iDisplayName;
}

void KCNode::setDisplayName(std::string name) {
  SmallMutexLock lock(iFieldLock);
  if (name == iDisplayName) return;
  if (locked_has(kPathEndsInName)) iPath = std::make_shared<const std::string>(locked_path());
  locked_setFlag(kPathEndsInName, false);
  std::string filename = locked_filename();
  iDisplayName = std::move(name);
  iHash = 0;
  locked_setFilename(std::move(filename));
}

const std::string& KCNode::locked_filename() const {
  return iRare != nullptr && iRare->filename ? *iRare->filename : iDisplayName;
}

std::string KCNode::filename() const {
  SmallMutexLock lock(iFieldLock);
  return locked_filename();
}

void KCNode::setFilename(std::string name) {
  SmallMutexLock lock(iFieldLock);
  locked_setFilename(std::move(name));
}

void KCNode::locked_setFilename(std::string name) {
  if (name != iDisplayName) {
    rare().filename = std::move(name);
  } else if (iRare != nullptr) {
    iRare->filename.reset();
  }
}

std::shared_ptr<KCNode> KCNode::parent() const {
  SmallMutexLock lock(iFieldLock);
  return iParent.lock();
}

void KCNode::setParent(const std::shared_ptr<KCNode>& parent) {
  SmallMutexLock lock(iFieldLock);
  iParent = parent;
}

bool KCNode::isExpired() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kExpired) || locked_has(kHasNewItems);
}

void KCNode::setExpired(bool expired) {
  SmallMutexLock lock(iFieldLock);
  locked_setFlag(kExpired, expired);
  if (!expired) locked_setFlag(kHasNewItems, false);
}

void KCNode::setHasNewItems(bool hasNewItems) {
  SmallMutexLock lock(iFieldLock);
  locked_setFlag(kHasNewItems, hasNewItems);
}

bool KCNode::hasOnlyNewItems() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kHasNewItems) && !locked_has(kExpired);
}

void KCNode::setListed(bool isWhole, bool hasNewItems) {
  SmallMutexLock lock(iFieldLock);
  if (isWhole) locked_setFlag(kExpired, false);
  locked_setFlag(kHasNewItems, hasNewItems);
}

std::any KCNode::userPropertyForKey(std::string_view key) const {
  SmallMutexLock lock(iFieldLock);
  if (iRare == nullptr) return {};
  for (const auto& [name, value] : iRare->userProperties) {
    if (name == key) return value;
  }
  return {};
}

void KCNode::setUserProperty(std::any value, std::string_view forKey) {
  SmallMutexLock lock(iFieldLock);
  if (iRare == nullptr && !value.has_value()) return;
  auto& properties = rare().userProperties;
  const auto found = std::find_if(properties.begin(), properties.end(),
                                  [forKey](const auto& entry) { return entry.first == forKey; });
  // The old value is let go after the lock is: its destructor may be the program's (an open file that
  // closes).
  if (found != properties.end()) {
    found->second.swap(value);
    if (!found->second.has_value()) properties.erase(found);
  } else if (value.has_value()) {
    properties.emplace_back(forKey, std::move(value));
  }
}

size_t KCNode::displayNameHash() const {
  SmallMutexLock lock(iFieldLock);
  if (iHash == 0) {
    const size_t hash = canonicalHash(iDisplayName);
    iHash = std::max<uint32_t>(1, static_cast<uint32_t>(hash ^ (hash >> 32)));
  }
  return iHash;
}

std::string KCNode::displayNameForFilename(std::string_view filename) const { return std::string(filename); }

}  // namespace ombra
