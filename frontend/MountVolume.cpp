#include "frontend/MountVolume.h"

#include <fmt/format.h>

#include <cstdlib>

#include "frontend/CredentialSocket.h"
#include "frontend/Deadline.h"
#include "frontend/Explain.h"
#include "frontend/HelperBus.h"
#include "frontend/HelperLogs.h"
#include "frontend/PassthroughOwner.h"
#include "frontend/Volumes.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCUUID.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr int kTickMilliseconds = 100;
// What a helper sent before it ended may still be on its way through the bus.
constexpr int kLastAnnouncementMilliseconds = 1000;

// An archive with secrets in it, wiped when it is no longer needed.
struct Archive {
  NSData data;
  explicit Archive(NSData bytes) : data(std::move(bytes)) {}
  ~Archive() { wipe(data); }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
};

// Where the volume of a pass-through identifier is mounted. False while it is not.
bool fillFromExistingVolume(const std::string& identifier, MountResult* result) {
  for (const Volume& volume : currentVolumes()) {
    if (volume.identifier != identifier || volume.mountPath.empty()) continue;
    result->mountPath = volume.mountPath;
    result->volumeName = volume.name;
    result->address = volume.address;
    result->registeredName = volume.registeredName;
    result->pid = volume.pid;
    return true;
  }
  return false;
}

Failure nothingThere(const std::string& identifier, pid_t owner) {
  const std::string what = fmt::format("There is no volume of the identifier {}.", inQuotes(identifier));
  if (owner == 0)
    return {kExitFailure, what, "The helper that was about to mount it has ended.", "Try again."};
  return {kExitFailure, what, fmt::format("Process {} has taken it, and has not mounted it yet.", owner),
          fmt::format("Try again later; if nothing changes, end that process: kill {}", owner)};
}

// Why the helper's volume shows another folder than the one that was asked for; null where it does not.
NSErrorRef startFolderError(pid_t helper) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const auto bus = address == nullptr ? nullptr : HelperBus::connect(address);
  return bus == nullptr ? nullptr : bus->statusOf(HelperBus::nameOf(helper), helper).startFolderError;
}

std::vector<std::string> namesOfCurrentVolumes() {
  std::vector<std::string> names;
  for (Volume& volume : currentVolumes()) names.push_back(std::move(volume.name));
  return names;
}

}  // namespace

MountVolume::MountVolume(MountRequest request, const MountLimits& limits, const Interruption& interruption,
                         Spinner& spinner)
    : iRequest(std::move(request)),
      iLimits(limits),
      iInterruption(interruption),
      iSpinner(spinner),
      iRegisteredName(KCUUID::UUID().stringValue()),
      iAnnouncements(iRegisteredName) {}

MountVolume::~MountVolume() = default;

MountResult MountVolume::run() {
  iSpinner.setText("Mounting " + (iRequest.name ? *iRequest.name : iRequest.credentials->address()));
  MountResult result = handOff();
  // Also after a failure, which leaves logs too.
  clearOldLogs(helperLogsFolder(), NSDate::date(), namesOfCurrentVolumes);
  iSpinner.clear();
  return result;
}

MountResult MountVolume::handOff() {
  Failure failure;
  const auto socket = CredentialSocket::create(&failure);
  if (!socket) return failed(failure);
  const HelperArguments arguments{socket->path(), iRegisteredName, iRequest.name, iRequest.icon,
                                  iRequest.passthrough};
  iHelper = HelperProcess::start(iRequest.helper, arguments, &failure);
  if (!iHelper) return failed(failure);
  const Archive archive(iRequest.credentials->archivedData());
  const auto handed = socket->serve({.registeredName = iRegisteredName,
                                     .archive = archive.data,
                                     .helperFd = iHelper->fd(),
                                     .interruptionFd = iInterruption.fd(),
                                     .limit = iLimits.handOff,
                                     .perConnectionLimit = std::chrono::seconds(5),
                                     .isAllowed = {}});
  socket->remove();
  switch (handed) {
    case CredentialSocket::Result::kServed:
    case CredentialSocket::Result::kHelperEnded:
      return awaitAnnouncement();
    case CredentialSocket::Result::kInterrupted:
      return interrupted();
    case CredentialSocket::Result::kTimedOut:
    case CredentialSocket::Result::kFailed:
      break;
  }
  stopHelper();
  return failed({kExitFailure, "The helper did not fetch its credentials.", sentence(iHelper->lastWords()),
                 "Try again."});
}

MountResult MountVolume::awaitAnnouncement() {
  const Deadline deadline(iLimits.mount);
  while (!deadline.passed()) {
    const bool ended = iHelper->hasEnded();
    const auto announcement = iAnnouncements.next(ended ? kLastAnnouncementMilliseconds : kTickMilliseconds);
    if (announcement) {
      if (auto result = resultOf(*announcement)) return *result;
    } else if (ended) {
      return helperEnded();
    }
    if (iInterruption.requested()) return interrupted();
    iSpinner.tick();
  }
  stopHelper();
  return failed({kExitFailure, "The volume could not be mounted.",
                 fmt::format("The helper said nothing for {} seconds.", iLimits.mount.count() / 1000),
                 moreInLog()});
}

std::optional<MountResult> MountVolume::resultOf(const MountAnnouncement& announcement) {
  switch (announcement.kind) {
    case MountAnnouncement::Kind::kDidMount:
      return mounted(announcement);
    case MountAnnouncement::Kind::kAlreadyMounted:
      return alreadyMounted(announcement);
    case MountAnnouncement::Kind::kDidUnmount:
      return helperEnded();
    case MountAnnouncement::Kind::kMountFailed:
      break;
  }
  // Its helper announces the unmount and ends; a second attempt must not meet it.
  iHelper->waitForEnd(static_cast<int>(iLimits.end.count()));
  return failed(explain(announcement.error), announcement.error);
}

// A helper mounts the folder above one that it cannot enter. That is meant where the path names a file;
// nobody who named a folder wants to write above it.
MountResult MountVolume::mounted(const MountAnnouncement& announcement) {
  const NSErrorRef error = startFolderError(iHelper->pid());
  if (error != nullptr && !QuarnKitError::isCode(error, kQuarnKitNotAFolder)) {
    stopHelper();
    return failed(explain(error), error);
  }
  return announced(announcement);
}

Failure MountVolume::explain(const NSErrorRef& error) const {
  const KCCredentials& credentials = *iRequest.credentials;
  return explainError(error, {.address = credentials.address(),
                              .port = credentials.port(),
                              .username = credentials.username().value_or(""),
                              .path = credentials.initialPath().value_or(""),
                              .passthrough = iRequest.passthrough.value_or(""),
                              .logName = logName(),
                              .protocol = credentials.protocol()});
}

std::string MountVolume::logName() const {
  return iRequest.name ? *iRequest.name : iRequest.credentials->address();
}

std::string MountVolume::moreInLog() const {
  return "The log has more: ombra logs " + shellQuoted(logName());
}

MountResult MountVolume::announced(const MountAnnouncement& announcement) {
  MountResult result;
  result.mounted = true;
  result.registeredName = iRegisteredName;
  result.volumeName = announcement.volumeName;
  result.mountPath = announcement.mountPath;
  result.rootPath = announcement.rootPath;
  result.address = announcement.address;
  result.pid = iHelper->pid();
  return result;
}

// The other helper takes the identifier before it logs in, so its volume may still be on its way.
MountResult MountVolume::alreadyMounted(const MountAnnouncement& announcement) {
  const std::string identifier = announcement.passthrough.value_or("");
  MountResult result = announced(announcement);
  result.alreadyMounted = true;
  const Deadline deadline(iLimits.otherHelper);
  while (!fillFromExistingVolume(identifier, &result)) {
    const pid_t owner = ownerOfPassthrough(identifier);
    if (iInterruption.requested()) return interrupted();
    if (owner == 0 || deadline.passed()) return failed(nothingThere(identifier, owner));
    iAnnouncements.next(kTickMilliseconds);
    iSpinner.tick();
  }
  return result;
}

MountResult MountVolume::failed(Failure failure, NSErrorRef error) {
  MountResult result;
  result.failure = std::move(failure);
  result.error = std::move(error);
  return result;
}

MountResult MountVolume::helperEnded() {
  return failed({kExitFailure, "The helper ended before anything was mounted.",
                 sentence(iHelper->lastWords()), moreInLog()});
}

MountResult MountVolume::interrupted() {
  stopHelper();
  return failed({static_cast<ExitCode>(iInterruption.exitCode()), "Stopped; nothing is mounted.", "", ""});
}

void MountVolume::stopHelper() {
  iHelper->terminate();
  if (iHelper->waitForEnd(static_cast<int>(iLimits.end.count()))) return;
  iHelper->kill();
  iHelper->waitForEnd(static_cast<int>(iLimits.end.count()));
}

bool MountVolume::waitUntilUnmounted() {
  while (!iHelper->hasEnded()) {
    if (iInterruption.requested()) return false;
    iAnnouncements.next(kTickMilliseconds);
  }
  return true;
}

}  // namespace ombra
