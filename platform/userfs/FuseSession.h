// One connection to the kernel: the fuse library's objects, and the threads that answer its requests.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/foundation/NSCondition.h"
#include "platform/userfs/MountOptions.h"
#include "platform/userfs/Operations.h"
#include "platform/userfs/Volume.h"

namespace ombra {

// The loop is our own, because of what is changed in the messages (KernelWire) and of how it ends: threads
// blocked in the delegate are never cancelled, and those that wait for the kernel can be called away.
//
// A thread is started when a request arrives and no other thread waits for the next, up to a maximum; one
// that finds enough others waiting ends. Each thread keeps the session alive. Thread-safe.
class FuseSession : public std::enable_shared_from_this<FuseSession> {
 public:
  // 500 readers may wait for a slow server while listings are answered.
  static constexpr size_t kMaximumThreads = 900;
  static constexpr size_t kIdleThreads = 8;

  // `changed` is called, with no lock held, when the kernel has agreed on the terms and when the loop ends.
  // Null when the library refuses.
  static std::shared_ptr<FuseSession> create(std::shared_ptr<Volume> volume, const MountOptions& options,
                                             size_t maximumThreads, std::function<void()> changed);
  ~FuseSession();
  FuseSession(const FuseSession&) = delete;
  FuseSession& operator=(const FuseSession&) = delete;

  // Answers the requests that arrive on `device`, which belongs to the session from here on, also on failure.
  [[nodiscard]] bool start(int device);
  bool isInitialized() const { return iInitialized; }
  // True once the kernel has ended the connection, or `abort` has.
  bool hasEnded() const { return iEnded; }
  // How many requests are being answered, of those that count.
  size_t inFlight() EXCLUDES(iCondition);
  // Requests that begin from here on are answered, but do not count.
  void countNoMore() EXCLUDES(iCondition);
  // Waits until none is, until `limit` at the latest.
  bool waitUntilQuiet(NSDate limit) EXCLUDES(iCondition);
  // Ends the connection from our side: waiting threads leave, the kernel fails what is still being answered.
  void abort() EXCLUDES(iCondition);

  // Word to the kernel. Each may wait for a page or a folder that a running request holds, so none is called
  // on a thread that answers requests, nor with a lock held. Failures mean that the kernel did not know the
  // item.
  void invalidatePath(const std::string& path);  // attributes and pages
  void invalidateAttributes(uint64_t nodeID);    // attributes alone
  void expireEntry(uint64_t parent, const std::string& parentPath, const std::string& name);

 private:
  struct FuseDeleter {
    void operator()(fuse* library) const { fuse_destroy(library); }
  };

  FuseSession(std::shared_ptr<Volume> volume, size_t maximumThreads, std::function<void()> changed);
  fuse* makeLibrary(const MountOptions& options, bool withRedirect);
  static ssize_t readMessage(int device, void* buffer, size_t size, void* library);
  static ssize_t writeMessage(int device, iovec* parts, int count, void* library);
  // The library's handle of the folder that this is the reply to the opening of.
  std::optional<uint64_t> adjustReply(const iovec* parts, int count) EXCLUDES(iCondition);
  void forgetOpenFolder(uint64_t handle) EXCLUDES(iCondition);
  bool startThread() EXCLUDES(iCondition);
  void serve();
  // Waits for one request. False when the thread is to end.
  bool receive(fuse_buf* buffer, int* result, bool* counts) EXCLUDES(iCondition);
  void process(const fuse_buf& buffer);
  void end();
  // Pages and attributes. Also on a thread that answers a write which holds no pages itself: those of others
  // are held by reads, which do not wait for this one.
  void dropPages(uint64_t nodeID, off_t offset, size_t length);
  // Makes every thread that waits for the kernel come back, and returns when none waits any more.
  void callWaitingThreads() EXCLUDES(iCondition);

  const std::shared_ptr<Volume> iVolume;
  const size_t iMaximumThreads;
  const std::function<void()> iChanged;
  OperationsContext iContext;
  std::unique_ptr<fuse, FuseDeleter> iLibrary;
  fuse_session* iSession = nullptr;  // of iLibrary
  std::atomic<bool> iInitialized{false};
  std::atomic<bool> iEnded{false};

  NSCondition iCondition;
  size_t iThreadCount GUARDED_BY(iCondition) = 0;
  size_t iInFlight GUARDED_BY(iCondition) = 0;
  bool iCountsNoMore GUARDED_BY(iCondition) = false;
  std::set<pthread_t> iWaiting GUARDED_BY(iCondition);
  // From the library's handle to the folder's number.
  std::map<uint64_t, uint64_t> iOpenFolders GUARDED_BY(iCondition);
};

}  // namespace ombra
