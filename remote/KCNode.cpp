#include "remote/KCNode.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

KCNode::KCNode(std::string path) : iPath(std::move(path)), iDisplayName(lastPathComponent(iPath)) {}

KCNode::~KCNode() = default;

std::string KCNode::path() const {
  MutexLock lock(iFieldLock);
  return iPath;
}

void KCNode::setPath(std::string path) {
  std::string filename = lastPathComponent(path);
  std::string displayName = displayNameForFilename(filename);
  MutexLock lock(iFieldLock);
  iPath = std::move(path);
  iHashValid = false;
  iFilename.reset();
  if (filename != displayName) iFilename = std::move(filename);
  iDisplayName = std::move(displayName);
}

std::string KCNode::displayName() const {
  MutexLock lock(iFieldLock);
  return iDisplayName;
}

void KCNode::setDisplayName(std::string name) {
  MutexLock lock(iFieldLock);
  if (!iFilename) iFilename = std::move(iDisplayName);
  if (*iFilename == name) iFilename.reset();
  iDisplayName = std::move(name);
  iHashValid = false;
}

std::string KCNode::filename() const {
  MutexLock lock(iFieldLock);
  return iFilename ? *iFilename : iDisplayName;
}

void KCNode::setFilename(std::string name) {
  MutexLock lock(iFieldLock);
  iFilename.reset();
  if (name != iDisplayName) iFilename = std::move(name);
}

std::shared_ptr<KCNode> KCNode::parent() const {
  MutexLock lock(iFieldLock);
  return iParent.lock();
}

void KCNode::setParent(const std::shared_ptr<KCNode>& parent) {
  MutexLock lock(iFieldLock);
  iParent = parent;
}

bool KCNode::isExpired() const {
  MutexLock lock(iFieldLock);
  return iExpired;
}

void KCNode::setExpired(bool expired) {
  MutexLock lock(iFieldLock);
  iExpired = expired;
}

std::any KCNode::userPropertyForKey(std::string_view key) const {
  MutexLock lock(iFieldLock);
  for (const auto& [name, value] : iUserProperties) {
    if (name == key) return value;
  }
  return {};
}

void KCNode::setUserProperty(std::any value, std::string_view forKey) {
  MutexLock lock(iFieldLock);
  const auto found = std::find_if(iUserProperties.begin(), iUserProperties.end(),
                                  [forKey](const auto& entry) { return entry.first == forKey; });
  // The old value is let go after the lock is: its destructor may be the program's (an open file that
  // closes).
  if (found != iUserProperties.end()) {
    found->second.swap(value);
    if (!found->second.has_value()) iUserProperties.erase(found);
  } else if (value.has_value()) {
    iUserProperties.emplace_back(forKey, std::move(value));
  }
}

size_t KCNode::displayNameHash() const {
  MutexLock lock(iFieldLock);
  if (!iHashValid) {
    iHash = canonicalHash(iDisplayName);
    iHashValid = true;
  }
  return iHash;
}

std::string KCNode::displayNameForFilename(std::string_view filename) const { return std::string(filename); }

}  // namespace ombra
