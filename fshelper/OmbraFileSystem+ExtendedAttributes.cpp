// Extended attributes: in memory, on the node, for as long as it lives. Servers keep none.
#include <algorithm>

#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

using Attributes = std::shared_ptr<OFSNodeExtendedAttributes>;

// Companion files of other systems, which hold attributes themselves.
bool isCompanionFile(OptionalPath path) { return path && lastPathComponent(*path).starts_with("._"); }

Attributes attributesOfNode(const KCNode& node) {
  return ofs_property<Attributes>(node, kOFSExtendedAttributes).value_or(nullptr);
}

Attributes attributesMadeForNode(KCNode& node) {
  RecursiveMutexLock lock(node.objectLock());
  Attributes attributes = attributesOfNode(node);
  if (attributes == nullptr) {
    attributes = std::make_shared<OFSNodeExtendedAttributes>();
    node.setUserProperty(attributes, kOFSExtendedAttributes);
  }
  return attributes;
}

// Replaces the bytes from `position` on by `patch`; the value grows when the patch runs past its end.
void replaceBytes(NSData& value, size_t position, const NSData& patch) {
  value.resize(std::max(value.size(), position + patch.size()));
  std::copy(patch.begin(), patch.end(), value.begin() + static_cast<ptrdiff_t>(position));
}

// The error of a set, or 0 when the value was stored.
int storeValue(OFSNodeExtendedAttributes& attributes, std::string_view name, const NSData& value,
               int64_t position, int options) {
  MutexLock lock(attributes.lock);
  const auto found = attributes.values.find(name);
  if (found == attributes.values.end()) {
    if ((options & kXATTR_REPLACE) != 0) return kENOATTR;
    // The position counts only inside a value that is there: intended.
    attributes.values.emplace(name, value);
    return 0;
  }
  if ((options & kXATTR_CREATE) != 0) return kEEXIST;
  if (position < 0 || static_cast<uint64_t>(position) > found->second.size()) return kERANGE;
  replaceBytes(found->second, static_cast<size_t>(position), value);
  return 0;
}

}  // namespace

std::optional<std::vector<std::string>> OmbraFileSystem::extendedAttributesOfItemAtPath(OptionalPath path,
                                                                                        NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem extendedAttributesOfItemAtPath:error:]", "{}", ofs_describe(path));
  if (isCompanionFile(path)) {
    OFS_FAIL(error, kEPERM);
    return std::nullopt;
  }
  const std::shared_ptr<KCRemoteFileNode> node = path ? nodeForPath(*path) : nullptr;
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return std::nullopt;
  }
  const Attributes attributes = attributesMadeForNode(*node);
  MutexLock lock(attributes->lock);
  std::vector<std::string> names;
  for (const auto& [name, value] : attributes->values) names.push_back(name);
  return names;
}

std::optional<NSData> OmbraFileSystem::valueOfExtendedAttribute(std::string_view name,
                                                                OptionalPath ofItemAtPath, int64_t position,
                                                                NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem valueOfExtendedAttribute:ofItemAtPath:position:error:]",
            "{}, name={}, position={}", ofs_describe(ofItemAtPath), name, position);
  const std::shared_ptr<KCRemoteFileNode> node = nodeForExtendedAttribute(name, ofItemAtPath, error);
  if (node == nullptr) return std::nullopt;
  const Attributes attributes = attributesOfNode(*node);
  if (attributes != nullptr) {
    MutexLock lock(attributes->lock);
    const auto found = attributes->values.find(name);
    if (found != attributes->values.end()) {
      const NSData& value = found->second;
      if (position >= 0 && static_cast<uint64_t>(position) <= value.size()) {
        return NSData(value.begin() + static_cast<ptrdiff_t>(position), value.end());
      }
      OFS_FAIL(error, kERANGE);
      return std::nullopt;
    }
  }
  // Asked for all the time, so the error itself is not logged.
  OFS_TRACE_MESSAGE("no extended attribute named {}", name);
  storeError(error, ofs_posixError(kENOATTR));
  return std::nullopt;
}

bool OmbraFileSystem::setExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath,
                                           const NSData& value, int64_t position, int options,
                                           NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem setExtendedAttribute:ofItemAtPath:value:position:options:error:]",
            "{}, name={}, position={}, options=0x{:x}", ofs_describe(ofItemAtPath), name, position, options);
  const std::shared_ptr<KCRemoteFileNode> node = nodeForExtendedAttribute(name, ofItemAtPath, error);
  if (node == nullptr) return false;
  const int code = storeValue(*attributesMadeForNode(*node), name, value, position, options);
  if (code != 0) {
    OFS_FAIL(error, static_cast<InterfaceErrno>(code));
    return false;
  }
  fileSystemAttributesNeedUpdate(true);
  return true;
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::nodeForExtendedAttribute(std::string_view name,
                                                                            OptionalPath path,
                                                                            NSErrorRef* error) {
  if (name.empty()) {
    OFS_FAIL(error, kEINVAL);
    return nullptr;
  }
  if (isCompanionFile(path)) {
    OFS_FAIL(error, kEPERM);
    return nullptr;
  }
  std::shared_ptr<KCRemoteFileNode> node = path ? nodeForPath(*path) : nullptr;
  if (node == nullptr) OFS_FAIL(error, kENOENT);
  return node;
}

}  // namespace ombra
