#include "platform/userfs/FuseSession.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT: pthread_kill
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/userfs/DetachedThread.h"
#include "platform/userfs/FuseModule.h"
#include "platform/userfs/KernelMount.h"
#include "platform/userfs/KernelWire.h"
#include "platform/userfs/RequestContext.h"

namespace ombra {

namespace {

constexpr double kSecondsBetweenCalls = 0.002;

// The session whose request this thread answers; null on threads that only give word to the kernel.
thread_local FuseSession* tAnswering = nullptr;

// Interrupts a thread's wait for the kernel; does nothing else.
int wakeUpSignal() { return SIGRTMAX - 3; }

void installWakeUpSignal() {
  static std::once_flag sOnce;
  std::call_once(sOnce, [] {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    sigaction(wakeUpSignal(), &action, nullptr);  // without SA_RESTART: the read is to come back
  });
}

// The program blocks its signals in all threads; this one must get through here.
void unblockWakeUpSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, wakeUpSignal());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Options of one word each, whatever is in it: the library takes a comma for the end of one.
class Arguments {
 public:
  Arguments(const MountOptions& options, bool withRedirect) {
    add("ombrafs");
    if (options.debug) add("-d");
    if (options.allowRoot) add("-oallow_root");
    add(fmt::format("-omax_read={}", KernelMount::kLargestRequest).c_str());
    if (withRedirect) addRedirect(options);
  }
  ~Arguments() { fuse_opt_free_args(&iArguments); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;
  fuse_args* get() { return &iArguments; }

 private:
  void add(const char* argument) { fuse_opt_add_arg(&iArguments, argument); }
  void addOption(const std::string& option) {
    char* escaped = nullptr;
    fuse_opt_add_opt_escaped(&escaped, option.c_str());
    if (escaped == nullptr) throw std::bad_alloc();
    add("-o");
    add(escaped);
    free(escaped);  // NOLINT: the library's allocation
  }
  void addRedirect(const MountOptions& options) {
    addOption("modules=redirect");
    addOption("redirect_folder=" + options.redirect->folder);
    if (options.redirect->hashesNames) addOption("redirect_sha1");
    if (options.redirect->icon) addOption("redirect_volicon=" + *options.redirect->icon);
    if (options.volumeName) addOption("volname=" + *options.volumeName);
  }
  fuse_args iArguments{};
};

// A volume without it is still worth having; it says so and goes on.
bool canRedirect(const MountOptions& options) {
  if (!options.redirect) return false;
  std::string reason;
  if (loadFuseModule("redirect", &reason)) return true;
  NSLog(
      "Desktop litter will be stored on the server, and the volume has no icon: the module that keeps it "
      "here "
      "could not be loaded ({}). Install the program again.",
      reason);
  return false;
}

}  // namespace

fuse* FuseSession::makeLibrary(const MountOptions& options, bool withRedirect) {
  Arguments arguments(options, withRedirect);
  return fuse_new(arguments.get(), &volumeOperations(), sizeof(fuse_operations), &iContext);
}

std::shared_ptr<FuseSession> FuseSession::create(std::shared_ptr<Volume> volume, const MountOptions& options,
                                                 size_t maximumThreads, std::function<void()> changed) {
  installWakeUpSignal();
  std::shared_ptr<FuseSession> session(
      new FuseSession(std::move(volume), maximumThreads, std::move(changed)));
  const bool redirects = canRedirect(options);
  session->iLibrary.reset(session->makeLibrary(options, redirects));
  if (session->iLibrary == nullptr && redirects) {
    NSLog("Desktop litter will be stored on the server, and the volume has no icon: see above.");
    session->iLibrary.reset(session->makeLibrary(options, false));
  }
  if (session->iLibrary == nullptr) return nullptr;
  session->iSession = fuse_get_session(session->iLibrary.get());
  return session;
}

FuseSession::FuseSession(std::shared_ptr<Volume> volume, size_t maximumThreads, std::function<void()> changed)
    : iVolume(std::move(volume)), iMaximumThreads(maximumThreads), iChanged(std::move(changed)) {
  iContext.volume = iVolume.get();
  iContext.initialized = [this] {
    iInitialized = true;
    iChanged();
  };
  iContext.dropPages = [this](uint64_t nodeID, off_t offset, size_t length) {
    dropPages(nodeID, offset, length);
  };
}

// The last thread, or the mount, lets go: nobody uses the library's objects any more. The kernel drops the
// releases of folders that it has not sent when a volume goes, and the library frees what it keeps of an open
// folder only with them, so they are made up here; their replies go nowhere.
FuseSession::~FuseSession() {
  std::map<uint64_t, uint64_t> folders;
  {
    ConditionLock lock(iCondition);
    folders.swap(iOpenFolders);
  }
  for (const auto& [handle, nodeID] : folders) {
    std::vector<char> message = folderRelease(handle, nodeID);
    fuse_buf buffer{};
    buffer.mem = message.data();
    buffer.size = message.size();
    fuse_session_process_buf(iSession, &buffer);
  }
}

bool FuseSession::start(int device) {
  fuse_custom_io io{};
  io.read = &FuseSession::readMessage;
  io.writev = &FuseSession::writeMessage;
  if (fuse_session_custom_io(iSession, &io, device) != 0) {
    close(device);
    return false;
  }
  {
    ConditionLock lock(iCondition);
    iThreadCount = 1;
  }
  return startThread();
}

ssize_t FuseSession::readMessage(int device, void* buffer, size_t size, void* /*library*/) {
  return ::read(device, buffer, size);
}

ssize_t FuseSession::writeMessage(int device, iovec* parts, int count, void* /*library*/) {
  // Before the kernel has the reply: it may remove the file, or close the folder, at once.
  std::optional<uint64_t> folder;
  if (tAnswering != nullptr) folder = tAnswering->adjustReply(parts, count);
  const ssize_t written = ::writev(device, parts, count);
  // Nobody waits for the folder any more, and the library has let go of it.
  const int number = errno;
  if (written < 0 && folder) tAnswering->forgetOpenFolder(*folder);
  errno = number;
  return written;
}

std::optional<uint64_t> FuseSession::adjustReply(const iovec* parts, int count) {
  RequestContext& context = RequestContext::current();
  if (context.created != nullptr) {
    if (const uint64_t nodeID = nodeIDOfCreationReply(parts, count)) context.created->item->setNodeID(nodeID);
    context.created = nullptr;
  }
  if (std::exchange(context.offersPrivileges, false)) acceptPrivileges(parts, count);
  if (!context.keepsListing) return std::nullopt;
  const auto handle = allowListingCache(parts, count, *context.keepsListing);
  context.keepsListing.reset();
  if (handle) {
    ConditionLock lock(iCondition);
    iOpenFolders[*handle] = context.nodeID;
  }
  return handle;
}

void FuseSession::forgetOpenFolder(uint64_t handle) {
  ConditionLock lock(iCondition);
  iOpenFolders.erase(handle);
}

// The caller has counted the thread.
bool FuseSession::startThread() {
  if (startDetachedThread("fuse request", [session = shared_from_this()] { session->serve(); })) return true;
  ConditionLock lock(iCondition);
  --iThreadCount;
  return false;
}

void FuseSession::serve() {
  unblockWakeUpSignal();
  fuse_buf buffer{};
  int result = 0;
  bool counts = false;
  while (receive(&buffer, &result, &counts)) {
    if (result > 0) process(buffer);
    if (!counts) continue;
    ConditionLock lock(iCondition);
    --iInFlight;
    iCondition.broadcast();
  }
  free(buffer.mem);  // NOLINT: the library's allocation
}

bool FuseSession::receive(fuse_buf* buffer, int* result, bool* counts) {
  {
    ConditionLock lock(iCondition);
    if (iEnded || iWaiting.size() >= kIdleThreads) {
      --iThreadCount;
      return false;
    }
    iWaiting.insert(pthread_self());
  }
  *result = fuse_session_receive_buf(iSession, buffer);
  const bool isOver = *result == 0 || (*result < 0 && *result != -EINTR && *result != -EAGAIN);
  bool startAnother = false;
  {
    ConditionLock lock(iCondition);
    iWaiting.erase(pthread_self());
    *counts = *result > 0 && !iCountsNoMore;
    if (*counts) ++iInFlight;
    startAnother = *result > 0 && iWaiting.empty() && iThreadCount < iMaximumThreads && !iEnded;
    if (startAnother) ++iThreadCount;
    if (isOver) --iThreadCount;
    iCondition.broadcast();
  }
  if (isOver) {
    if (*result < 0) NSLog("The connection to the kernel has failed: {}", kc_strerror(-*result));
    end();
    return false;
  }
  // Without another thread this one goes on alone; the next request tries again.
  if (startAnother) startThread();
  return true;
}

void FuseSession::process(const fuse_buf& buffer) {
  if (readRequestHead(buffer.mem, buffer.size)) {
    addHandleToAttributeRequest(buffer.mem, buffer.size, [this](uint64_t nodeID) {
      return iVolume->handles().handleOfRemovedNode(nodeID);
    });
    if (const auto folder = handleOfFolderRelease(buffer.mem, buffer.size)) forgetOpenFolder(*folder);
    RequestContext& context = RequestContext::current();
    context.offersPrivileges = offersPrivileges(buffer.mem, buffer.size);
    context.takesPrivileges = takesPrivileges(buffer.mem, buffer.size);
  }
  tAnswering = this;
  fuse_session_process_buf(iSession, &buffer);
  tAnswering = nullptr;
  RequestContext::current() = RequestContext();
}

void FuseSession::end() {
  if (iEnded.exchange(true)) return;
  fuse_session_exit(iSession);
  iChanged();
}

size_t FuseSession::inFlight() {
  ConditionLock lock(iCondition);
  return iInFlight;
}

void FuseSession::countNoMore() {
  ConditionLock lock(iCondition);
  iCountsNoMore = true;
}

bool FuseSession::waitUntilQuiet(NSDate limit) {
  ConditionLock lock(iCondition);
  while (iInFlight != 0) {
    if (!iCondition.waitUntilDate(limit)) return iInFlight == 0;
  }
  return true;
}

// A signal that comes just before the read is lost, so it is sent again until nobody waits any more. In
// between the lock is free: the threads need it to say that they have come back.
void FuseSession::callWaitingThreads() {
  ConditionLock lock(iCondition);
  while (!iWaiting.empty()) {
    for (const pthread_t thread : iWaiting) pthread_kill(thread, wakeUpSignal());
    iCondition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(kSecondsBetweenCalls));
  }
}

void FuseSession::abort() {
  end();
  callWaitingThreads();
  // Threads that are still in the delegate will write their replies to this number, so it is not closed but
  // pointed elsewhere. The kernel ends the connection with the last reference to the device.
  const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nowhere < 0) return;
  dup3(nowhere, fuse_session_fd(iSession), O_CLOEXEC);
  close(nowhere);
}

void FuseSession::invalidatePath(const std::string& path) {
  if (!iEnded) fuse_invalidate_path(iLibrary.get(), path.c_str());
}

void FuseSession::invalidateAttributes(uint64_t nodeID) {
  // A negative offset leaves the pages alone.
  if (!iEnded) fuse_lowlevel_notify_inval_inode(iSession, nodeID, -1, 0);
}

void FuseSession::dropPages(uint64_t nodeID, off_t offset, size_t length) {
  if (!iEnded) fuse_lowlevel_notify_inval_inode(iSession, nodeID, offset, static_cast<off_t>(length));
}

void FuseSession::expireEntry(uint64_t parent, const std::string& parentPath, const std::string& name) {
  if (iEnded) return;
  // Expiring leaves the entry in place until it is looked up again: taking it away would leave a shell that
  // sits in the folder without a path, and is what older kernels would do. There the attributes are asked for
  // again, which finds out what has gone.
  if (iContext.canExpireEntries && parent != 0) {
    fuse_lowlevel_notify_expire_entry(iSession, parent, name.c_str(), name.size(), FUSE_LL_EXPIRE_ONLY);
  } else {
    fuse_invalidate_path(iLibrary.get(), stringByAppendingPathComponent(parentPath, name).c_str());
  }
}

}  // namespace ombra
