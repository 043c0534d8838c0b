// What the sessions to one server have learnt of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/ftp/FTPFeatures.h"

namespace ombra {

// Facts that hold for every session, so that each is found out once. Thread-safe.
class FTPServer {
 public:
  enum class Passive { kUnknown, kExtended, kPlain };
  enum class Answer { kUnknown, kYes, kNo };

  std::optional<FTPFeatures> features() const EXCLUDES(iLock);
  void setFeatures(const FTPFeatures& features) EXCLUDES(iLock);

  // How data connections are asked for; only a way that has worked is remembered.
  Passive passive() const EXCLUDES(iLock);
  void setPassive(Passive passive) EXCLUDES(iLock);
  // Whether commands may be sent before the replies to those in front of them. Most servers read a command
  // when they have dealt with the one before; one that was seen to throw away what came early is asked one by
  // one.
  bool mayPipeline() const EXCLUDES(iLock);
  void stopPipelining() EXCLUDES(iLock);
  // Whether LIST takes "-a", without which some servers keep names with a dot to themselves.
  Answer listsAll() const EXCLUDES(iLock);
  void setListsAll(Answer answer) EXCLUDES(iLock);
  // Whether STAT of a path tells of that item.
  Answer stats() const EXCLUDES(iLock);
  void setStats(Answer answer) EXCLUDES(iLock);
  // Whether SITE CHMOD works.
  Answer changesModes() const EXCLUDES(iLock);
  void setChangesModes(Answer answer) EXCLUDES(iLock);
  // Whether a rename replaces what has that name.
  Answer renamesOver() const EXCLUDES(iLock);
  void setRenamesOver(Answer answer) EXCLUDES(iLock);
  // Whether files can be sent under another name and be renamed.
  Answer usesTemporaries() const EXCLUDES(iLock);
  void setUsesTemporaries(Answer answer) EXCLUDES(iLock);
  // The mode that a file gets when it is made.
  std::optional<uint16_t> modeOfNewFiles() const EXCLUDES(iLock);
  void setModeOfNewFiles(uint16_t mode) EXCLUDES(iLock);

  // Temporary files that could not be removed because the session was lost.
  void addLeftover(std::string path) EXCLUDES(iLock);
  std::vector<std::string> takeLeftovers() EXCLUDES(iLock);

 private:
  mutable Mutex iLock;
  std::optional<FTPFeatures> iFeatures GUARDED_BY(iLock);
  Passive iPassive GUARDED_BY(iLock) = Passive::kUnknown;
  bool iMayPipeline GUARDED_BY(iLock) = true;
  Answer iListsAll GUARDED_BY(iLock) = Answer::kUnknown;
  Answer iStats GUARDED_BY(iLock) = Answer::kUnknown;
  Answer iChangesModes GUARDED_BY(iLock) = Answer::kUnknown;
  Answer iRenamesOver GUARDED_BY(iLock) = Answer::kUnknown;
  Answer iUsesTemporaries GUARDED_BY(iLock) = Answer::kUnknown;
  std::optional<uint16_t> iModeOfNewFiles GUARDED_BY(iLock);
  std::vector<std::string> iLeftovers GUARDED_BY(iLock);
};

}  // namespace ombra
