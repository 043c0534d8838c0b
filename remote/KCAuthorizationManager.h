// Changes to files with administrator rights.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// Runs chown and chmod with fixed argument lists: directly when root, else through pkexec, else through "sudo
// -n". Never through a shell, with an environment of its own. Each call waits for its program, thus with
// pkexec for the user. Used on one thread at a time. Failures are of the POSIX domain with code 1, with the
// program's words and what to do in the user info.
class KCAuthorizationManager {
 public:
  virtual ~KCAuthorizationManager() = default;
  static KCAuthorizationManager& sharedInstance();

  // `withOwner` and `group` are account names; "wheel" is group 0. Links are changed themselves, never
  // followed.
  bool chownWithPrivilegesItemAtPath(const std::string& path, std::string_view withOwner,
                                     std::string_view group, bool recursive, NSErrorRef* error);
  // `withPermissions` is a symbolic mode such as "go-w". An item that is a link is refused.
  bool chmodWithPrivilegesItemAtPath(const std::string& path, std::string_view withPermissions,
                                     bool recursive, NSErrorRef* error);

  // A program that runs the command that follows it, for pkexec to start in the command's place: the question
  // to the person is then the one that the system has for this program. Nothing of it is checked here.
  void setStepProgram(std::string path) { iStepProgram = std::move(path); }

  // Runs a program by its full path, without input. The exit status (128 + number for a signal, 127 when it
  // could not be started) and up to 4 KiB of what it wrote, trimmed.
  static int runCommand(const std::vector<std::string>& arguments, std::string* output);

 protected:
  // What a test puts its own answers for.
  virtual int run(const std::vector<std::string>& arguments, std::string* output);
  virtual bool isRoot() const;
  virtual bool isExecutable(const std::string& path) const;

 private:
  bool runWithPrivileges(std::vector<std::string> command, NSErrorRef* error);

  std::string iStepProgram;
};

}  // namespace ombra
