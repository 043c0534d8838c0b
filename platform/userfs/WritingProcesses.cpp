#include "platform/userfs/WritingProcesses.h"

#include "platform/userfs/ProcessOfThread.h"

namespace ombra {

void WritingProcesses::add(pid_t thread) {
  if (thread == 0 || thread == iLast) return;
  const MutexLock lock(iLock);
  if (iThreads.size() < kMost && iThreads.insert(thread).second) iProcesses.insert(processOfThread(thread));
  iLast = thread;
}

bool WritingProcesses::includes(pid_t thread) const {
  const MutexLock lock(iLock);
  if (iThreads.empty()) return false;
  return iThreads.size() == kMost || iProcesses.contains(processOfThread(thread));
}

}  // namespace ombra
