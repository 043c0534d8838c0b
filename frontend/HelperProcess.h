// The helper: one process per volume.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "frontend/Failure.h"
#include "frontend/UniqueFd.h"

namespace ombra {

// What the helper is told on its command line.
struct HelperArguments {
  std::string socketPath;
  std::string registeredName;
  std::optional<std::string> name;
  std::optional<std::string> icon;
  std::optional<std::string> passthrough;  // may be empty, which is not the same as absent

  // "--sock=…", "--uuid=…" and those of the others that are present, without the program itself.
  std::vector<std::string> list() const;
};

// The helper's executable as seen from the command's own: ../libexec/ombrafs/ombrafs-helper beside its
// folder.
std::string helperPathForCommand(const std::string& commandPath);

// A running helper, detached: in a session of its own, in the root folder, with no descriptors of this
// process. Destroying the object leaves it running.
class HelperProcess {
 public:
  // Null, with the failure filled, when it cannot be started.
  static std::unique_ptr<HelperProcess> start(const std::string& executable, const HelperArguments& arguments,
                                              Failure* failure);

  pid_t pid() const { return iPid; }
  // Readable once the helper has ended.
  int fd() const { return iProcess.get(); }
  bool hasEnded() const;
  // Waits at most `milliseconds` for its end; true when it has ended.
  bool waitForEnd(int milliseconds) const;
  // Asks it to end, as a polite kill does.
  void terminate() const;
  void kill() const;
  // The last lines (at most three) that it wrote to standard error before it opened its log.
  std::string lastWords() const;

 private:
  HelperProcess(pid_t pid, UniqueFd process, UniqueFd words);
  void signal(int number) const;

  pid_t iPid;
  UniqueFd iProcess;
  UniqueFd iWords;
};

}  // namespace ombra
