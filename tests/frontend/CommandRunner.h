// The command, run as a child with a fake helper beside it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "frontend/UniqueFd.h"

namespace ombra {

struct CommandResult {
  int exitCode = -1;  // 128 plus the signal's number when one ended it
  std::string out;
  std::string err;
};

// An installed copy of the command whose helper is this test program (see FakeHelper.h), in a folder of its
// own.
class Installation {
 public:
  // Made once for the whole program, beside the build, since a copy must be a link on the same disk.
  static const Installation& shared();
  Installation();
  ~Installation();
  Installation(const Installation&) = delete;
  Installation& operator=(const Installation&) = delete;
  std::string command() const { return iFolder + "/bin/ombra"; }
  std::string helper() const { return iFolder + "/libexec/ombrafs/ombrafs-helper"; }
  // The real one.
  std::string keyring() const { return iFolder + "/libexec/ombrafs/ombrafs-keyring"; }

 private:
  std::string iFolder;
};

// A running command in a session of its own. Without a terminal its standard input is empty; with one, input
// is a pseudo terminal that is also its controlling terminal. Ended by the destructor when it still runs.
class RunningCommand {
 public:
  enum class Input { kNone, kTerminal };
  RunningCommand(const std::vector<std::string>& arguments, Input input,
                 const std::vector<std::string>& environment = {});
  ~RunningCommand();
  RunningCommand(const RunningCommand&) = delete;
  RunningCommand& operator=(const RunningCommand&) = delete;

  pid_t pid() const { return iPid; }
  // Waits until the terminal has shown `text` so many times; false when the command ended before, or after 20
  // s.
  bool waitForTerminal(const std::string& text, int times = 1);
  // Waits until standard output has brought `text`.
  bool waitForOutput(const std::string& text);
  void type(const std::string& text) const;
  // All that the terminal has shown so far.
  const std::string& terminal() const { return iShown; }
  int terminalFd() const { return iTerminal.get(); }
  // Waits for its end, at most 30 seconds.
  CommandResult finish();

 private:
  bool collect(int milliseconds);

  pid_t iPid = -1;
  UniqueFd iTerminal;
  UniqueFd iOut;
  UniqueFd iErr;
  std::string iShown;
  CommandResult iResult;
};

// Runs it without a terminal to its end. `environment` entries are "NAME=value".
CommandResult runCommand(const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {});

// Ends the helpers that a test has left on that bus. None of them is there any more afterwards.
void endHelpersOn(const std::string& busAddress);

}  // namespace ombra
