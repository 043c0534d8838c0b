// Where links lead.
#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

namespace {

LinkResolution resolutionTo(std::string path, const std::optional<SFTPAttributes>& target) {
  LinkResolution resolution;
  resolution.resolved = true;
  resolution.resolvedPath = std::move(path);
  resolution.exists = target.has_value();
  resolution.isDirectory = target && target->isDirectory();
  if (target) resolution.attributes = fileAttributesFromSFTP(*target);
  return resolution;
}

// The names of a way that are still to come.
class NamesToCome {
 public:
  // Those of `path` come first.
  void prepend(std::string_view path) {
    std::vector<std::string> names;
    while (!path.empty()) {
      const size_t end = path.find('/');
      if (end != 0) names.emplace_back(path.substr(0, end));
      path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
    }
    for (const std::string& name : names) iLength += 1 + name.size();
    iNames.insert(iNames.end(), names.rbegin(), names.rend());
  }
  std::string takeNext() {
    std::string name = std::move(iNames.back());
    iNames.pop_back();
    iLength -= 1 + name.size();
    return name;
  }
  bool empty() const { return iNames.empty(); }
  // As a path.
  size_t length() const { return iLength; }

 private:
  std::vector<std::string> iNames;  // the next one last
  size_t iLength = 0;
};

}  // namespace

SFTPSession::LinkQuestion SFTPSession::askLink(std::string path, size_t entry) {
  LinkQuestion question;
  question.entry = entry;
  question.readlinkID = iRequests.readlink(path);
  question.realpathID = iRequests.realpath(path);
  question.statID = iRequests.stat(path);
  question.path = std::move(path);
  return question;
}

void SFTPSession::abandon(const LinkQuestion& question) {
  iChannel.abandon(question.readlinkID);
  iChannel.abandon(question.realpathID);
  iChannel.abandon(question.statID);
}

// Takes the three answers about one link. False only when the connection has ended. `target` stays absent for
// what is no link; `resolution` stays absent when the server resolves nothing and the way has to be walked.
bool SFTPSession::settleLink(const LinkQuestion& question, std::optional<std::string>* target,
                             std::optional<LinkResolution>* resolution, NSErrorRef* error) {
  const std::string& path = question.path;
  NSErrorRef nameError;
  NSErrorRef statError;
  *target = waitName(question.readlinkID, path, nullptr);
  const auto name = waitName(question.realpathID, path, &nameError);
  const auto present = waitAttributes(question.statID, SFTPOperation::kOther, path, &statError);
  if (iChannel.failure()) {
    storeError(error, iChannel.failure());
    return false;
  }
  if (!*target) {
    // The end of a way that is followed link by link.
    if (question.links > 0) *resolution = resolutionTo(normalRemotePath(path), present);
    return true;
  }
  // Servers that only tidy the path up answer the link's own path for a link.
  const bool isResolved = name && normalRemotePath(*name) != normalRemotePath(path);
  if (isResolved) {
    *resolution = resolutionTo(normalRemotePath(*name), present);
  } else if (present || QuarnKitError::isCode(statError, kQuarnKitPermissionDenied)) {
    // One step: what the link names may be a link itself.
    *resolution =
        resolutionTo(normalRemotePath(absoluteRemotePath(**target, parentOfRemotePath(path))), present);
    (*resolution)->isFinal = false;
  }
  return true;
}

std::optional<LinkResolution> SFTPSession::resolveLink(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return std::nullopt;
  const LinkQuestion question = askLink(std::string(path), 0);
  std::optional<std::string> target;
  std::optional<LinkResolution> resolution;
  const uint32_t lstatID = iRequests.lstat(path);
  if (!settleLink(question, &target, &resolution, error)) return std::nullopt;
  NSErrorRef lstatError;
  const auto item = waitAttributes(lstatID, SFTPOperation::kOther, path, &lstatError);
  if (iChannel.failure()) {
    storeError(error, iChannel.failure());
    return std::nullopt;
  }
  if (!target) {
    // No link, or nothing at all: the path itself. What may not be looked at is not answered.
    if (!item && !QuarnKitError::isCode(lstatError, kQuarnKitNoSuchItem)) {
      storeError(error, lstatError);
      return std::nullopt;
    }
    return resolutionTo(normalRemotePath(path), item);
  }
  if (resolution) return resolution;
  return walkLink(path, error);
}

// Follows name by name, as the kernel would.
std::optional<LinkResolution> SFTPSession::walkLink(std::string_view path, NSErrorRef* error) {
  NamesToCome rest;
  rest.prepend(path);
  std::string reached;
  for (int links = 0; !rest.empty();) {
    if (reached.size() + rest.length() > kMaximumPathLength) return LinkResolution{};
    const std::string name = rest.takeNext();
    const std::string next = normalRemotePath(reached + "/" + name);
    NSErrorRef reason;
    const auto target = name == ".." || name == "." ? std::optional<std::string>()
                                                    : waitName(iRequests.readlink(next), next, &reason);
    if (iChannel.failure()) {
      storeError(error, iChannel.failure());
      return std::nullopt;
    }
    if (!target) {
      reached = next == "/" ? "" : next;
      continue;
    }
    if (++links > kMostLinksOnTheWay) return LinkResolution{};
    if (target->starts_with('/')) reached.clear();
    rest.prepend(*target);
  }
  const std::string final = reached.empty() ? "/" : reached;
  const auto present = lookAt(final);
  if (iChannel.failure()) {
    storeError(error, iChannel.failure());
    return std::nullopt;
  }
  return resolutionTo(final, present);
}

}  // namespace ombra
