#include "tests/userfs/MemoryFileSystem.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

const MemoryItemRef& itemOf(const GMUserData& userData) {
  return std::static_pointer_cast<MemoryOpenFile>(userData)->item;
}

}  // namespace

MemoryFileSystem::MemoryFileSystem() { addFolder("/"); }

MemoryItemRef MemoryFileSystem::add(const std::string& path, NSFileTypeValue type) {
  ConditionLock lock(iCondition);
  auto item = std::make_shared<MemoryItem>();
  item->type = type;
  item->number = ++iLastNumber;
  iItems[path] = item;
  return item;
}

void MemoryFileSystem::addFile(const std::string& path, std::string content, uint16_t permissions) {
  const auto item = add(path, NSFileTypeValue::NSFileTypeRegular);
  ConditionLock lock(iCondition);
  item->content = std::move(content);
  item->permissions = permissions;
}

void MemoryFileSystem::addFolder(const std::string& path) {
  const auto item = add(path, NSFileTypeValue::NSFileTypeDirectory);
  ConditionLock lock(iCondition);
  item->permissions = 0755;
}

void MemoryFileSystem::addLink(const std::string& path, std::string target) {
  const auto item = add(path, NSFileTypeValue::NSFileTypeSymbolicLink);
  ConditionLock lock(iCondition);
  item->content = std::move(target);
}

void MemoryFileSystem::erase(const std::string& path) {
  ConditionLock lock(iCondition);
  iItems.erase(path);
}

std::optional<std::string> MemoryFileSystem::contentOf(const std::string& path) {
  ConditionLock lock(iCondition);
  const auto item = find(path);
  return item != nullptr ? std::optional(item->content) : std::nullopt;
}

std::optional<MemoryItem> MemoryFileSystem::itemAt(const std::string& path) {
  ConditionLock lock(iCondition);
  const auto item = find(path);
  return item != nullptr ? std::optional(*item) : std::nullopt;
}

void MemoryFileSystem::hold(const std::string& operation, const std::string& path) {
  ConditionLock lock(iCondition);
  iHolds.emplace(operation, path);
}

void MemoryFileSystem::letGo(const std::string& operation, const std::string& path) {
  ConditionLock lock(iCondition);
  iHolds.erase({operation, path});
  iCondition.broadcast();
}

void MemoryFileSystem::waitUntilHeld(size_t count) {
  ConditionLock lock(iCondition);
  while (iHeld < count) iCondition.wait();
}

void MemoryFileSystem::failWith(const std::string& operation, std::optional<int> code) {
  ConditionLock lock(iCondition);
  iFailures.erase(operation);
  if (code) iFailures[operation] = *code;
}

void MemoryFileSystem::raiseIn(const std::string& operation) {
  ConditionLock lock(iCondition);
  iRaising.insert(operation);
}

std::vector<std::string> MemoryFileSystem::calls() {
  ConditionLock lock(iCondition);
  return iCalls;
}

size_t MemoryFileSystem::countOf(std::string_view call) {
  ConditionLock lock(iCondition);
  return static_cast<size_t>(std::count_if(iCalls.begin(), iCalls.end(), [call](const std::string& made) {
    return made.compare(0, call.size(), call) == 0;
  }));
}

void MemoryFileSystem::forgetCalls() {
  ConditionLock lock(iCondition);
  iCalls.clear();
}

void MemoryFileSystem::waitForCalls(std::string_view call, size_t count) {
  ConditionLock lock(iCondition);
  while (true) {
    const auto made = std::count_if(iCalls.begin(), iCalls.end(), [call](const std::string& one) {
      return one.compare(0, call.size(), call) == 0;
    });
    if (static_cast<size_t>(made) >= count) return;
    iCondition.wait();
  }
}

bool MemoryFileSystem::isHeld(const std::string& operation, const std::string& path) {
  return iHolds.count({operation, ""}) != 0 || iHolds.count({operation, path}) != 0;
}

bool MemoryFileSystem::enter(const std::string& operation, OptionalPath path, std::string_view details,
                             NSErrorRef* error) {
  const std::string place(path.value_or("(none)"));
  ConditionLock lock(iCondition);
  iCalls.push_back(operation + " " + place + (details.empty() ? "" : " ") + std::string(details));
  const bool isToWait = isHeld(operation, place);
  if (isToWait) ++iHeld;
  iCondition.broadcast();
  while (isHeld(operation, place)) iCondition.wait();
  if (isToWait) --iHeld;
  if (iRaising.count(operation) != 0) throw KCException("raised in " + operation);
  const auto failure = iFailures.find(operation);
  return failure == iFailures.end() ? true : fail(failure->second, error);
}

bool MemoryFileSystem::fail(int code, NSErrorRef* error) {
  if (code != 0) storeError(error, NSError::errorWithDomain(NSPOSIXErrorDomain, code));
  return false;
}

MemoryItemRef MemoryFileSystem::find(OptionalPath path) {
  if (!path) return nullptr;
  const auto found = iItems.find(std::string(*path));
  return found == iItems.end() ? nullptr : found->second;
}

std::shared_ptr<MemoryOpenFile> MemoryFileSystem::openFileOf(const MemoryItemRef& item) {
  auto& file = iOpenFiles[item.get()];
  if (file == nullptr) file = std::make_shared<MemoryOpenFile>(item);
  return file;
}

std::shared_ptr<MemoryOpenFile> MemoryFileSystem::preparedFileOf(const MemoryItemRef& item) {
  const auto found = iOpenFiles.find(item.get());
  return found == iOpenFiles.end() ? nullptr : found->second;
}

bool MemoryFileSystem::isFolderEmpty(const std::string& path) {
  const std::string prefix = path == "/" ? path : path + "/";
  const auto next = iItems.upper_bound(prefix);
  return next == iItems.end() || next->first.compare(0, prefix.size(), prefix) != 0;
}

void MemoryFileSystem::willMount() { enter("willMount", std::nullopt, "", nullptr); }

std::optional<std::vector<std::string>> MemoryFileSystem::contentsOfDirectoryAtPath(OptionalPath path,
                                                                                    NSErrorRef* error) {
  if (!enter("list", path, "", error)) return std::nullopt;
  ConditionLock lock(iCondition);
  if (find(path) == nullptr) return fail(kENOENT, error), std::nullopt;
  const std::string prefix = *path == "/" ? "/" : std::string(*path) + "/";
  std::vector<std::string> names;
  for (auto entry = iItems.upper_bound(prefix); entry != iItems.end(); ++entry) {
    if (entry->first.compare(0, prefix.size(), prefix) != 0) break;
    const std::string rest = entry->first.substr(prefix.size());
    if (rest.find('/') == std::string::npos) names.push_back(rest);
  }
  return names;
}

std::optional<NSFileAttributes> MemoryFileSystem::attributesOfItemAtPath(OptionalPath path, const GMUserData&,
                                                                         NSErrorRef* error) {
  if (!enter("attributes", path, "", error)) return std::nullopt;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error), std::nullopt;
  NSFileAttributes attributes;
  attributes.fileType = item->type;
  if (item->type == NSFileTypeValue::NSFileTypeRegular) attributes.fileSize = item->content.size();
  attributes.posixPermissions = item->permissions;
  attributes.modificationDate = item->modified;
  attributes.systemFileNumber = item->number;
  return attributes;
}

std::optional<NSFileAttributes> MemoryFileSystem::attributesOfFileSystemForPath(OptionalPath path,
                                                                                NSErrorRef* error) {
  if (!enter("volume", path, "", error)) return std::nullopt;
  NSFileAttributes attributes;
  attributes.systemSize = 32212254720;
  attributes.systemFreeSize = 16106127360;
  return attributes;
}

bool MemoryFileSystem::setAttributes(const NSFileAttributes& attributes, OptionalPath path,
                                     const GMUserData& userData, NSErrorRef* error) {
  const std::string details = attributes.description() + (userData != nullptr ? " open" : "");
  if (!enter("setAttributes", path, details, error)) return false;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  if (attributes.posixPermissions) item->permissions = *attributes.posixPermissions;
  if (attributes.modificationDate) item->modified = *attributes.modificationDate;
  return true;
}

bool MemoryFileSystem::createDirectoryAtPath(OptionalPath path, const NSFileAttributes&, NSErrorRef* error) {
  if (!enter("createDirectory", path, "", error)) return false;
  addFolder(std::string(*path));
  return true;
}

bool MemoryFileSystem::createFileAtPath(OptionalPath path, const NSFileAttributes& attributes,
                                        GMUserData* userData, NSErrorRef* error) {
  if (!enter("create", path, fmt::format("{:#o}", attributes.posixPermissions.value_or(0)), error))
    return false;
  addFile(std::string(*path), "", attributes.posixPermissions.value_or(0644));
  ConditionLock lock(iCondition);
  *userData = openFileOf(find(path));
  return true;
}

bool MemoryFileSystem::createSymbolicLinkAtPath(OptionalPath path, OptionalPath target, NSErrorRef* error) {
  if (!enter("createSymbolicLink", path, *target, error)) return false;
  addLink(std::string(*path), std::string(*target));
  return true;
}

std::optional<std::string> MemoryFileSystem::destinationOfSymbolicLinkAtPath(OptionalPath path,
                                                                             NSErrorRef* error) {
  if (!enter("destination", path, "", error)) return std::nullopt;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  return item == nullptr ? std::nullopt : std::optional(item->content);
}

bool MemoryFileSystem::moveItemAtPath(OptionalPath path, OptionalPath toPath, NSErrorRef* error) {
  if (!enter("move", path, *toPath, error)) return false;
  ConditionLock lock(iCondition);
  if (find(path) == nullptr) return fail(kENOENT, error);
  const std::string from(*path);
  std::vector<std::pair<std::string, MemoryItemRef>> moved;
  for (const auto& [place, item] : iItems) {
    const bool isBelow = place.compare(0, from.size() + 1, from + "/") == 0;
    if (place == from || isBelow) moved.emplace_back(place, item);
  }
  for (const auto& [place, item] : moved) iItems.erase(place);
  for (const auto& [place, item] : moved) iItems[std::string(*toPath) + place.substr(from.size())] = item;
  return true;
}

bool MemoryFileSystem::removeItemAtPath(OptionalPath path, NSErrorRef* error) {
  if (!enter("remove", path, "", error)) return false;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  if (item->type == NSFileTypeValue::NSFileTypeDirectory && !isFolderEmpty(std::string(*path))) {
    return fail(kENOTEMPTY, error);
  }
  iItems.erase(std::string(*path));
  return true;
}

bool MemoryFileSystem::openFileAtPath(OptionalPath path, int mode, GMUserData* userData, NSErrorRef* error) {
  bool isPrepared = false;
  {
    ConditionLock lock(iCondition);
    const auto item = find(path);
    isPrepared = item != nullptr && preparedFileOf(item) != nullptr;
  }
  if (!enter("open", path, fmt::format("{:#x}", mode), error)) return false;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  // As the real one: what was prepared before does not look at the flags.
  if (!isPrepared && (mode & (kO_CREAT | kO_TRUNC)) != 0) item->content.clear();
  *userData = openFileOf(item);
  return true;
}

int MemoryFileSystem::readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size,
                                     int64_t offset, NSErrorRef* error) {
  if (!enter("read", path, "", error)) return -1;
  ConditionLock lock(iCondition);
  const std::string& content = itemOf(userData)->content;
  const auto start = std::min(static_cast<size_t>(offset), content.size());
  const size_t count = std::min(size, content.size() - start);
  std::memcpy(buffer, content.data() + start, count);
  return static_cast<int>(count);
}

int MemoryFileSystem::writeFileAtPath(OptionalPath path, const GMUserData& userData, const void* buffer,
                                      size_t size, int64_t offset, NSErrorRef* error) {
  if (!enter("write", path, std::to_string(size), error)) return -1;
  ConditionLock lock(iCondition);
  std::string& content = itemOf(userData)->content;
  const size_t end = static_cast<size_t>(offset) + size;
  if (content.size() < end) content.resize(end);
  std::memcpy(content.data() + offset, buffer, size);
  return static_cast<int>(size);
}

bool MemoryFileSystem::truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                                          NSErrorRef* error) {
  const bool succeeds =
      enter("truncate", path, std::to_string(offset) + (userData != nullptr ? " open" : ""), error);
  // As the real one: an error may come with a success.
  if (!succeeds) return true;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  if (userData == nullptr) openFileOf(item);
  item->content.resize(static_cast<size_t>(offset));
  return true;
}

void MemoryFileSystem::releaseFileAtPath(OptionalPath path, const GMUserData&) {
  enter("release", path, "", nullptr);
}

std::optional<std::vector<std::string>> MemoryFileSystem::extendedAttributesOfItemAtPath(OptionalPath path,
                                                                                         NSErrorRef* error) {
  if (!enter("listxattr", path, "", error)) return std::nullopt;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error), std::nullopt;
  std::vector<std::string> names;
  for (const auto& [name, value] : item->extendedAttributes) names.push_back(name);
  return names;
}

std::optional<NSData> MemoryFileSystem::valueOfExtendedAttribute(std::string_view name, OptionalPath path,
                                                                 int64_t, NSErrorRef* error) {
  if (!enter("getxattr", path, name, error)) return std::nullopt;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error), std::nullopt;
  const auto found = item->extendedAttributes.find(std::string(name));
  if (found == item->extendedAttributes.end()) return fail(kENOATTR, error), std::nullopt;
  return found->second;
}

bool MemoryFileSystem::setExtendedAttribute(std::string_view name, OptionalPath path, const NSData& value,
                                            int64_t, int options, NSErrorRef* error) {
  if (!enter("setxattr", path, fmt::format("{} {:#x}", name, options), error)) return false;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  const bool exists = item->extendedAttributes.count(std::string(name)) != 0;
  if (exists && (options & kXATTR_CREATE) != 0) return fail(kEEXIST, error);
  if (!exists && (options & kXATTR_REPLACE) != 0) return fail(kENOATTR, error);
  item->extendedAttributes[std::string(name)] = value;
  return true;
}

void DurableMemoryFileSystem::setContentState(const std::string& path, GMContentState state,
                                              uint64_t arrived) {
  ConditionLock lock(iCondition);
  iArrivals[find(path).get()] = {state, arrived};
  iCondition.broadcast();
}

void DurableMemoryFileSystem::setUndelivered(std::vector<GMUndelivered> undelivered) {
  ConditionLock lock(iCondition);
  iUndelivered = std::move(undelivered);
}

int DurableMemoryFileSystem::readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer,
                                            size_t size, int64_t offset, NSErrorRef* error) {
  {
    ConditionLock lock(iCondition);
    const auto arrival = iArrivals.find(itemOf(userData).get());
    if (arrival != iArrivals.end()) {
      const auto start = static_cast<uint64_t>(offset);
      const uint64_t left = arrival->second.bytes > start ? arrival->second.bytes - start : 0;
      size = std::min<uint64_t>(size, left);
    }
  }
  return MemoryFileSystem::readFileAtPath(path, userData, buffer, size, offset, error);
}

bool DurableMemoryFileSystem::flushFileAtPath(OptionalPath path, const GMUserData&, NSErrorRef* error) {
  return enter("flushFile", path, "", error);
}

bool DurableMemoryFileSystem::synchronizeFileAtPath(OptionalPath path, const GMUserData&, NSErrorRef* error) {
  return enter("synchronize", path, "", error);
}

GMContentState DurableMemoryFileSystem::contentStateOfFile(const GMUserData& userData) {
  enter("contentState", std::nullopt, "", nullptr);
  ConditionLock lock(iCondition);
  const auto arrival = iArrivals.find(itemOf(userData).get());
  return arrival == iArrivals.end() ? GMContentState::kComplete : arrival->second.state;
}

void DurableMemoryFileSystem::waitForContent(const GMUserData& userData, uint64_t seen) {
  enter("waitForContent", std::nullopt, std::to_string(seen), nullptr);
  ConditionLock lock(iCondition);
  while (true) {
    const Arrival& arrival = iArrivals[itemOf(userData).get()];
    if (arrival.state != GMContentState::kArriving || arrival.bytes > seen) return;
    iCondition.wait();
  }
}

bool DurableMemoryFileSystem::changeAttributesWithoutContent(const NSFileAttributes& attributes,
                                                             OptionalPath path, NSErrorRef* error) {
  if (!enter("changeWithoutContent", path, attributes.description(), error)) return false;
  ConditionLock lock(iCondition);
  const auto item = find(path);
  if (item == nullptr) return fail(kENOENT, error);
  if (attributes.posixPermissions) item->permissions = *attributes.posixPermissions;
  if (attributes.modificationDate) item->modified = *attributes.modificationDate;
  return true;
}

std::optional<std::string> DurableMemoryFileSystem::knownDestinationOfSymbolicLinkAtPath(OptionalPath path) {
  ConditionLock lock(iCondition);
  const auto item = find(path);
  return item == nullptr ? std::nullopt : std::optional(item->content);
}

void DurableMemoryFileSystem::seedCacheAttributesAtPath(OptionalPath path, const GMUserData&) {
  enter("seed", path, "", nullptr);
}

void DurableMemoryFileSystem::abandonFile(const GMUserData&) { enter("abandon", std::nullopt, "", nullptr); }

void DurableMemoryFileSystem::reclaimFile(const GMUserData&) { enter("reclaim", std::nullopt, "", nullptr); }

bool DurableMemoryFileSystem::truncateAbandonedFile(const GMUserData& userData, int64_t offset,
                                                    NSErrorRef* error) {
  if (!enter("truncateAbandoned", std::nullopt, std::to_string(offset), error)) return false;
  ConditionLock lock(iCondition);
  itemOf(userData)->content.resize(static_cast<size_t>(offset));
  return true;
}

GMUserData DurableMemoryFileSystem::openFileAtPathIfAny(OptionalPath path) {
  ConditionLock lock(iCondition);
  const auto item = find(path);
  return item == nullptr ? nullptr : preparedFileOf(item);
}

bool DurableMemoryFileSystem::settleBeforeMoveAtPath(OptionalPath path, NSErrorRef* error) {
  return enter("settle", path, "", error);
}

void DurableMemoryFileSystem::movedItemAtPath(OptionalPath path, OptionalPath toPath) {
  enter("moved", path, *toPath, nullptr);
}

std::optional<std::vector<std::string>> DurableMemoryFileSystem::namesAsListedAtPath(OptionalPath path,
                                                                                     NSErrorRef* error) {
  return contentsOfDirectoryAtPath(path, error);
}

std::string DurableMemoryFileSystem::listedPathForPath(std::string_view path) {
  enter("listedPath", path, "", nullptr);
  ConditionLock lock(iCondition);
  for (const auto& [place, item] : iItems) {
    if (canonicallyEqual(place, path)) return place;
  }
  return std::string(path);
}

void DurableMemoryFileSystem::forgetFailedContentAtPath(OptionalPath path) {
  enter("forget", path, "", nullptr);
}

void DurableMemoryFileSystem::trimCache() { enter("trim", std::nullopt, "", nullptr); }

std::vector<GMUndelivered> DurableMemoryFileSystem::drainAll() {
  enter("drain", std::nullopt, "", nullptr);
  ConditionLock lock(iCondition);
  return iUndelivered;
}

void DurableMemoryFileSystem::giveUpConnections() { enter("giveUp", std::nullopt, "", nullptr); }

}  // namespace ombra
