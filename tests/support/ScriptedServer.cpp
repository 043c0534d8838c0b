#include "tests/support/ScriptedServer.h"

#include <fmt/format.h>

#include <algorithm>

#include "tests/support/ScriptedConnection.h"
#include "tests/support/ScriptedServerState.h"

namespace ombra {

ScriptedServer::ScriptedServer(uint32_t protocol) : iState(std::make_shared<State>(protocol)) {}

ScriptedServer::~ScriptedServer() {
  iState->releaseHolds();
  // What the test captured is gone after this.
  setObserver({});
  setChangeDirHandler({});
  setResolvePathHandler({});
  setAttributesHandler({});
  setContentsHandler({});
}

std::shared_ptr<KCConnectionPool> ScriptedServer::pool() const { return iState; }
const std::shared_ptr<KCCredentials>& ScriptedServer::credentials() const { return iState->iCredentials; }

void ScriptedServer::setIsSFTP(bool value) { iState->iIsSFTP = value; }
void ScriptedServer::setIsWebDAV(bool value) { iState->iIsWebDAV = value; }
void ScriptedServer::setSupportsUploadByteOffset(bool value) { iState->iSupportsUploadByteOffset = value; }
bool ScriptedServer::lastTookAhead() const { return iState->iLastTookAhead; }
void ScriptedServer::setTellsNews(bool value) { iState->iTellsNews = value; }
void ScriptedServer::setChunkSize(size_t bytes) { iState->iChunkSize = std::max<size_t>(bytes, 1); }
void ScriptedServer::setStreamCapacity(size_t bytes) { iState->iStreamCapacity = std::max<size_t>(bytes, 1); }

void ScriptedServer::setLoginPath(std::optional<std::string> path) {
  WatchedLock lock(iState->iCondition);
  iState->iLoginPath = std::move(path);
}

void ScriptedServer::setLoggedIn(bool loggedIn) {
  WatchedLock lock(iState->iCondition);
  iState->iLoggedIn = loggedIn;
}

void ScriptedServer::setPwd(std::optional<std::optional<std::string>> path) {
  WatchedLock lock(iState->iCondition);
  iState->iPwd = std::move(path);
}

void ScriptedServer::setAcquisitionTimesOut(bool timesOut) {
  WatchedLock lock(iState->iCondition);
  iState->iAcquisitionTimesOut = timesOut;
}

void ScriptedServer::setAcquisitionFails(bool fails) {
  WatchedLock lock(iState->iCondition);
  iState->iAcquisitionFails = fails;
}

void ScriptedServer::addFolder(std::string_view path) {
  WatchedLock lock(iState->iCondition);
  iState->iTree.add(path, kNodeTypeFolder);
}

void ScriptedServer::addFile(std::string_view path, std::string content) {
  WatchedLock lock(iState->iCondition);
  iState->iTree.add(path, kNodeTypeFile).content = std::move(content);
}

void ScriptedServer::addLink(std::string_view path, std::string target) {
  WatchedLock lock(iState->iCondition);
  iState->iTree.add(path, kNodeTypeAlias).target = std::move(target);
}

void ScriptedServer::removeItem(std::string_view path) {
  WatchedLock lock(iState->iCondition);
  iState->iTree.remove(path);
}

void ScriptedServer::setPermissions(std::string_view path, std::optional<uint16_t> mode) {
  WatchedLock lock(iState->iCondition);
  if (ScriptedItem* item = iState->iTree.find(path)) item->attributes.posixPermissions = mode;
}

void ScriptedServer::setModificationDate(std::string_view path, std::optional<NSDate> date) {
  WatchedLock lock(iState->iCondition);
  if (ScriptedItem* item = iState->iTree.find(path)) item->attributes.modificationDate = date;
}

void ScriptedServer::setCreationDate(std::string_view path, std::optional<NSDate> date) {
  WatchedLock lock(iState->iCondition);
  if (ScriptedItem* item = iState->iTree.find(path)) item->attributes.creationDate = date;
}

void ScriptedServer::setListedSize(std::string_view path, std::optional<uint64_t> size) {
  WatchedLock lock(iState->iCondition);
  if (ScriptedItem* item = iState->iTree.find(path)) item->listedSize = size;
}

void ScriptedServer::setHidden(std::string_view path, bool hidden) {
  WatchedLock lock(iState->iCondition);
  iState->iTree.setHidden(path, hidden);
}

void ScriptedServer::setFileSystemAttributes(std::optional<NSFileAttributes> attributes) {
  WatchedLock lock(iState->iCondition);
  iState->iFileSystemAttributes = attributes;
}

bool ScriptedServer::exists(std::string_view path) const {
  WatchedLock lock(iState->iCondition);
  return iState->iTree.find(path) != nullptr;
}

std::optional<std::string> ScriptedServer::content(std::string_view path) const {
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.find(path);
  if (item == nullptr || item->type != kNodeTypeFile) return std::nullopt;
  return item->content;
}

std::optional<std::string> ScriptedServer::linkTarget(std::string_view path) const {
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.find(path);
  if (item == nullptr || item->type != kNodeTypeAlias) return std::nullopt;
  return item->target;
}

std::optional<NSFileAttributes> ScriptedServer::attributes(std::string_view path) const {
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.find(path);
  if (item == nullptr) return std::nullopt;
  return ScriptedTree::listedAttributes(*item);
}

std::vector<std::string> ScriptedServer::list(std::string_view folder) const {
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.find(folder);
  return item != nullptr ? item->children : std::vector<std::string>();
}

void ScriptedServer::fail(std::string_view operation, std::string_view path, NSErrorRef error) {
  WatchedLock lock(iState->iCondition);
  const State::Injected injected{
      std::string(operation), std::string(path), std::move(error), true, false, {}};
  // Before those that stay, so that they do not hide it.
  const auto firstLasting = std::find_if(iState->iInjected.begin(), iState->iInjected.end(),
                                         [](const State::Injected& other) { return !other.once; });
  iState->iInjected.insert(firstLasting, injected);
}

void ScriptedServer::failAlways(std::string_view operation, std::string_view path, NSErrorRef error) {
  WatchedLock lock(iState->iCondition);
  iState->iInjected.push_back(
      {std::string(operation), std::string(path), std::move(error), false, false, {}});
}

void ScriptedServer::failAfter(std::string_view operation, std::string_view path, uint64_t bytes,
                               NSErrorRef error) {
  WatchedLock lock(iState->iCondition);
  iState->iInjected.push_back(
      {std::string(operation), std::string(path), std::move(error), true, false, bytes});
}

void ScriptedServer::succeedWithError(std::string_view operation, std::string_view path, NSErrorRef error) {
  WatchedLock lock(iState->iCondition);
  iState->iInjected.push_back({std::string(operation), std::string(path), std::move(error), false, true, {}});
}

void ScriptedServer::stopFailing() {
  WatchedLock lock(iState->iCondition);
  iState->iInjected.clear();
}

std::shared_ptr<ScriptedHold> ScriptedServer::hold(std::string_view operation, std::string_view path,
                                                   uint64_t position) {
  auto hold = std::make_shared<HoldPoint>(std::string(operation), std::string(path), position);
  WatchedLock lock(iState->iCondition);
  iState->iHolds.push_back(hold);
  return hold;
}

void ScriptedServer::setChangeDirHandler(FlagHandler handler) {
  WatchedLock lock(iState->iCondition);
  iState->iChangeDirHandler = std::move(handler);
}

void ScriptedServer::setResolvePathHandler(ResolveHandler handler) {
  WatchedLock lock(iState->iCondition);
  iState->iResolveHandler = std::move(handler);
}

void ScriptedServer::setAttributesHandler(AttributesHandler handler) {
  WatchedLock lock(iState->iCondition);
  iState->iAttributesHandler = std::move(handler);
}

void ScriptedServer::setContentsHandler(ContentsHandler handler) {
  WatchedLock lock(iState->iCondition);
  iState->iContentsHandler = std::move(handler);
}

void ScriptedServer::setObserver(std::function<void(const ScriptedCall& call)> observer) {
  WatchedLock lock(iState->iCondition);
  iState->iObserver = std::move(observer);
}

TranscriptDelegate* ScriptedServer::transcriptDelegate() const { return iState->iTranscriptDelegate; }

void ScriptedServer::appendTranscript(std::string_view text, bool isOutgoing) {
  if (TranscriptDelegate* delegate = transcriptDelegate()) {
    delegate->connectionUUID(iState->iTranscriptUUID, text, isOutgoing);
  }
}

void ScriptedServer::flushTranscript() {
  if (TranscriptDelegate* delegate = transcriptDelegate()) {
    delegate->connectionUUIDFlushTranscript(iState->iTranscriptUUID);
  }
}

}  // namespace ombra
