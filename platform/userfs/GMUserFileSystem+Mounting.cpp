// From the request to mount to the end of the mount.
#include <exception>
#include <utility>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/userfs/AbsentDelegate.h"
#include "platform/userfs/GMUserFileSystemState.h"
#include "platform/userfs/KernelMount.h"
#include "platform/userfs/MountOptions.h"

namespace ombra {

namespace {

std::atomic<double> gSecondsInFlight{20};
std::atomic<double> gSecondsAfterGivingUp{10};
// A session without a byte is lost after 30 s, and its call fails by itself; silence that lasts longer will
// not end.
constexpr double kPatiencesOfSilence = 2;
// Releases of files that were still open; each waits a minute at most.
constexpr double kSecondsForReleases = 120;

NSErrorRef startError(const std::string& path, std::string_view reason) {
  return mountError(kGMMountRefused, fmt::format("The volume at \"{}\" could not be started.", path), reason,
                    "Try again; the log of the helper has more.");
}

// A path between tabs, which it may hold itself.
std::string field(std::string_view path) {
  std::string text;
  for (const char byte : path) {
    if (byte == '\t' || byte == '\\') text += '\\';
    text += byte == '\t' ? 't' : byte;
  }
  return text;
}

// What the server or the system said; the errno of the interface above it is the same for most failures.
std::string reasonOf(NSErrorRef error) {
  if (error == nullptr) return {};
  while (error->domain() == NSPOSIXErrorDomain && error->underlyingError() != nullptr)
    error = error->underlyingError();
  return error->localizedDescription();
}

}  // namespace

void GMUserFileSystem::setUnmountPatience(double secondsInFlight, double secondsAfterGivingUp) {
  gSecondsInFlight = secondsInFlight;
  gSecondsAfterGivingUp = secondsAfterGivingUp;
}

GMUserFileSystem::State::State(GMUserFileSystemDelegate* delegate, bool isThreadSafe)
    : iIsThreadSafe(isThreadSafe),
      iNameNotices("name notices", 1),
      iPageNotices("page notices", 1),
      iDelegate(delegate) {}

bool GMUserFileSystem::State::begin() {
  ConditionLock lock(iCondition);
  if (iPhase != Phase::kIdle) return false;
  iPhase = Phase::kMounting;
  return true;
}

void GMUserFileSystem::State::enter(Phase phase) {
  ConditionLock lock(iCondition);
  iPhase = phase;
  iCondition.broadcast();
}

void GMUserFileSystem::State::changed() {
  ConditionLock lock(iCondition);
  iCondition.broadcast();
}

void GMUserFileSystem::State::requestUnmount() {
  ConditionLock lock(iCondition);
  if (iPhase != Phase::kMounting && iPhase != Phase::kMounted) return;
  iUnmountRequested = true;
  iCondition.broadcast();
}

void GMUserFileSystem::State::waitUntilEnded() {
  ConditionLock lock(iCondition);
  while (iPhase != Phase::kIdle && iPhase != Phase::kEnded) {
    if (pthread_equal(iMountingThread, pthread_self()) != 0) return;
    iCondition.wait();
  }
}

void GMUserFileSystem::State::setDelegate(GMUserFileSystemDelegate* delegate) {
  std::shared_ptr<Volume> volume;
  {
    ConditionLock lock(iCondition);
    iDelegate = delegate;
    volume = iVolume;
  }
  if (volume != nullptr) volume->setDelegate(delegate);
}

std::shared_ptr<FuseSession> GMUserFileSystem::State::session() {
  ConditionLock lock(iCondition);
  return iSession;
}

std::shared_ptr<Volume> GMUserFileSystem::State::volume() {
  ConditionLock lock(iCondition);
  return iVolume;
}

void GMUserFileSystem::State::post(std::string_view name, const std::string& path,
                                   const NSDictionary& details) {
  NSDictionary userInfo{{std::string(kGMUserFileSystemMountPathKey), path}};
  for (const auto& [key, value] : details) userInfo.setObject(value, key);
  NSNotificationCenter::defaultCenter().postNotification(
      {std::string(name), std::nullopt, std::move(userInfo)});
}

// A handler may unmount once more, which does nothing now, or end the process.
void GMUserFileSystem::State::announceEnd(std::string_view name, const std::string& path,
                                          const NSDictionary& details) {
  enter(Phase::kAnnouncing);
  post(name, path, details);
  enter(Phase::kEnded);
}

void GMUserFileSystem::State::failToStart(const std::string& path) {
  announceEnd(kGMUserFileSystemMountFailed, path,
              {{std::string(kGMUserFileSystemErrorKey), startError(path, "The system has no thread left.")}});
}

void GMUserFileSystem::State::run(const std::string& path, const std::vector<std::string>& options) {
  {
    ConditionLock lock(iCondition);
    iMountingThread = pthread_self();
  }
  NSErrorRef error;
  try {
    error = mount(path, options);
  } catch (const std::exception& exception) {
    NSLog("Mounting at \"{}\" was broken off: {}", path, exception.what());
    error = startError(path, exception.what());
  }
  if (error != nullptr) {
    takeDown();
    announceEnd(kGMUserFileSystemMountFailed, path, {{std::string(kGMUserFileSystemErrorKey), error}});
    return;
  }
  enter(Phase::kMounted);
  post(kGMUserFileSystemDidMount, path, {});
  serveUntilEnd();
  NSArray undelivered;
  for (const GMUndelivered& item : drain()) {
    undelivered.emplace_back(
        fmt::format("{}\t{}\t{}", field(item.path), field(item.savedAs), reasonOf(item.error)));
  }
  takeDown();
  NSDictionary details;
  if (!undelivered.empty()) details.setObject(undelivered, kGMUserFileSystemUndeliveredKey);
  announceEnd(kGMUserFileSystemDidUnmount, path, details);
}

NSErrorRef GMUserFileSystem::State::mount(const std::string& path, const std::vector<std::string>& options) {
  const MountOptions parsed = MountOptions::parse(options, MountOptions::permission());
  NSErrorRef error;
  iMountPoint = MountPoint::prepare(path, volumesFolder(), &error);
  if (iMountPoint == nullptr) return error;
  std::shared_ptr<Volume> volume;
  {
    ConditionLock lock(iCondition);
    volume =
        std::make_shared<Volume>(iDelegate, VolumeSettings{path, parsed.jailSymlinks, parsed.nativeXattr});
    iVolume = volume;
  }
  volume->delegate().willMount();
  return startSession(parsed);
}

NSErrorRef GMUserFileSystem::State::startSession(const MountOptions& options) {
  const std::string& path = iMountPoint->path();
  const auto session = FuseSession::create(
      volume(), options, iIsThreadSafe ? FuseSession::kMaximumThreads : 1, [weak = weak_from_this()] {
        if (const auto state = weak.lock()) state->changed();
      });
  if (session == nullptr) return startError(path, "The fuse library refused its arguments.");
  NSErrorRef error;
  const int device = KernelMount::mount(path, options, &error);
  if (device < 0) return error;
  iMounted = mountedVolumeAtPath(path);
  if (!session->start(device)) return startError(path, "The system has no thread left.");
  {
    ConditionLock lock(iCondition);
    iSession = session;
  }
  if ((error = waitUntilInitialized()) != nullptr) return error;
  if (iMounted) KernelMount::raiseReadAhead(*iMounted);
  return nullptr;
}

NSErrorRef GMUserFileSystem::State::waitUntilInitialized() {
  ConditionLock lock(iCondition);
  while (!iSession->isInitialized() && !iSession->hasEnded()) iCondition.wait();
  if (iSession->isInitialized()) return nullptr;
  return startError(iMountPoint->path(), "The kernel ended the connection before it was set up.");
}

void GMUserFileSystem::State::serveUntilEnd() {
  {
    ConditionLock lock(iCondition);
    while (!iUnmountRequested && !iSession->hasEnded()) iCondition.wait();
  }
  detach();
  finishRequests();
  session()->abort();
}

bool GMUserFileSystem::State::detach() { return !iMounted || KernelMount::detach(*iMounted); }

// What is being answered comes to its end. Downloads that take long are ended: who reads is only told so.
// Uploads are waited for as long as bytes move: a close that stores a large file over a slow line must not be
// torn off. A dead server must not hold that for ever: the delegate is asked to give up its calls once
// nothing moves, and what still does not come back is left behind.
void GMUserFileSystem::State::finishRequests() {
  const auto session = this->session();
  if (session->waitUntilQuiet(NSDate::dateWithTimeIntervalSinceNow(gSecondsInFlight))) return;
  // A program that goes on with a file of the detached volume must not keep it for ever.
  session->countNoMore();
  if (GMUserFileSystemDurability* durability = volume()->durability()) {
    uint64_t moved = 0;
    do {
      moved = durability->bytesMoved();
      durability->endDownloads();
      const double silence = kPatiencesOfSilence * gSecondsInFlight;
      if (session->waitUntilQuiet(NSDate::dateWithTimeIntervalSinceNow(silence))) return;
    } while (durability->bytesMoved() != moved);
    NSLog("{} requests are still being answered; the connections are given up.", session->inFlight());
    durability->giveUpConnections();
  }
  if (session->waitUntilQuiet(NSDate::dateWithTimeIntervalSinceNow(gSecondsAfterGivingUp))) return;
  NSLog("{} requests do not come back; the volume ends without them.", session->inFlight());
}

std::vector<GMUndelivered> GMUserFileSystem::State::drain() {
  const auto volume = this->volume();
  std::vector<GMUndelivered> undelivered;
  try {
    if (GMUserFileSystemDurability* durability = volume->durability()) undelivered = durability->drainAll();
  } catch (const std::exception& exception) {
    NSLog("Sending what was written has failed: {}", exception.what());
    // Nobody knows which files: the volume as a whole is named.
    undelivered.push_back({"/", "",
                           NSError::errorWithDomain(
                               NSPOSIXErrorDomain, kEIO,
                               {{std::string(NSLocalizedDescriptionKey), std::string(exception.what())}})});
  }
  // The kernel drops the releases that it has not yet asked for when a volume is unmounted.
  volume->releaseAll();
  if (!volume->closers().waitUntilIdle(NSDate::dateWithTimeIntervalSinceNow(kSecondsForReleases))) {
    NSLog("Some files do not come to their end; the volume ends without them.");
  }
  return undelivered;
}

void GMUserFileSystem::State::takeDown() {
  iNameNotices.close();
  iPageNotices.close();
  if (iMounted) detach();
  if (const auto session = this->session()) session->abort();
  // A request that was left behind must not go on asking once it comes back.
  if (const auto volume = this->volume()) volume->setDelegate(nullptr);
  iMounted.reset();
  iMountPoint.reset();
}

void GMUserFileSystem::State::invalidateFolder(std::string path) {
  if (session() == nullptr) return;
  iNameNotices.add([session = session(), volume = volume(), path = std::move(path)] {
    const auto known = volume->folders().invalidate(path);
    session->invalidatePath(path);
    if (!known) return;
    for (const std::string& name : known->names) session->expireEntry(known->nodeID, path, name);
  });
}

void GMUserFileSystem::State::invalidateItem(std::string path, bool data) {
  if (session() == nullptr) return;
  WorkQueue& lane = data ? iPageNotices : iNameNotices;
  lane.add([session = session(), volume = volume(), path = std::move(path), data] {
    const auto item = volume->handles().itemAtPath(path);
    // Pages matter only where the file has been open; the library knows no way to its number alone.
    if (!data && item != nullptr && item->nodeID() != 0) {
      session->invalidateAttributes(item->nodeID());
      return;
    }
    if (data) volume->handles().forgetLastOpen(path);
    session->invalidatePath(path);
  });
}

}  // namespace ombra
