// What the sessions to one server have learnt of it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/Mutex.h"
#include "remote/Leftovers.h"
#include "remote/ftp/FTPFeatures.h"

namespace ombra {

// Facts that hold for every session, so that each is found out once; none depends on another. Thread-safe.
class FTPServer {
 public:
  enum class Passive { kUnknown, kExtended, kPlain };
  enum class Answer { kUnknown, kYes, kNo };

  std::optional<FTPFeatures> features() const EXCLUDES(iLock);
  void setFeatures(const FTPFeatures& features) EXCLUDES(iLock);

  // How data connections are asked for; only a way that has worked is remembered.
  Passive passive() const { return iPassive; }
  void setPassive(Passive passive) { iPassive = passive; }
  // Whether commands may be sent before the replies to those in front of them. Most servers read a command
  // when they have dealt with the one before; one that was seen to throw away what came early is asked one by
  // one.
  bool mayPipeline() const { return iMayPipeline; }
  void stopPipelining() { iMayPipeline = false; }
  // Whether a port for data may be asked for before there is a transfer that needs it. Most servers keep it
  // for the next one; a server that was seen to forget it is not asked ahead.
  bool keepsPorts() const { return iKeepsPorts; }
  void stopAskingAhead() { iKeepsPorts = false; }
  // Whether the server looks at its control connection between transfers only, so that what is asked for
  // behind one may travel with its command. Others would refuse it meanwhile, or give up the transfer for it.
  bool readsBetweenTransfers() const { return iReadsBetweenTransfers; }
  void setReadsBetweenTransfers() { iReadsBetweenTransfers = true; }
  // A transfer begins. Whether another one began on any session not long before: then more will follow.
  bool noteTransfer(std::chrono::steady_clock::time_point now);
  // Whether LIST takes "-a", without which some servers keep names with a dot to themselves.
  Answer listsAll() const { return iListsAll; }
  void setListsAll(Answer answer) { iListsAll = answer; }
  // Whether STAT of a path tells of that item.
  Answer stats() const { return iStats; }
  void setStats(Answer answer) { iStats = answer; }
  // Whether SITE CHMOD works.
  Answer changesModes() const { return iChangesModes; }
  void setChangesModes(Answer answer) { iChangesModes = answer; }
  // Whether that command is switched off altogether. A server says so in words that it has for single items
  // too: it is taken for true when it says nothing else.
  bool refusesAllModes() const { return iModeRefusals >= kRefusalsThatTell; }
  void noteModeRefusal() { ++iModeRefusals; }
  void noteModeChange() { iModeRefusals = kNeverAgain; }
  // Whether a rename replaces what has that name.
  Answer renamesOver() const { return iRenamesOver; }
  void setRenamesOver(Answer answer) { iRenamesOver = answer; }
  // Whether files can be sent under another name and be renamed.
  Answer usesTemporaries() const { return iUsesTemporaries; }
  void setUsesTemporaries(Answer answer) { iUsesTemporaries = answer; }
  // The mode that a file gets when it is made.
  std::optional<uint16_t> modeOfNewFiles() const {
    const int mode = iModeOfNewFiles;
    return mode < 0 ? std::nullopt : std::optional(static_cast<uint16_t>(mode));
  }
  void setModeOfNewFiles(uint16_t mode) { iModeOfNewFiles = mode; }

  Leftovers& leftovers() { return iLeftovers; }

 private:
  static constexpr int kRefusalsThatTell = 3;
  static constexpr int kNeverAgain = -1'000'000'000;
  std::atomic<Passive> iPassive = Passive::kUnknown;
  std::atomic<bool> iMayPipeline = true;
  std::atomic<bool> iKeepsPorts = true;
  std::atomic<bool> iReadsBetweenTransfers = false;
  std::atomic<std::chrono::steady_clock::time_point> iLastTransfer{};
  std::atomic<Answer> iListsAll = Answer::kUnknown;
  std::atomic<Answer> iStats = Answer::kUnknown;
  std::atomic<Answer> iChangesModes = Answer::kUnknown;
  std::atomic<int> iModeRefusals = 0;
  std::atomic<Answer> iRenamesOver = Answer::kUnknown;
  std::atomic<Answer> iUsesTemporaries = Answer::kUnknown;
  std::atomic<int> iModeOfNewFiles = -1;  // unknown
  mutable Mutex iLock;
  std::optional<FTPFeatures> iFeatures GUARDED_BY(iLock);
  Leftovers iLeftovers;
};

}  // namespace ombra
