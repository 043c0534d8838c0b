// A user with a home, a server, and a volume mounted through the command.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tests/integration/Shell.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {

// A home of its own (configuration, keys, state), no desktop, and the command as a user calls it. The
// destructor unmounts what was mounted and fails the test when a helper or a mount is left behind.
class OmbraUser {
 public:
  OmbraUser();
  ~OmbraUser();

  // Runs "ombra ARGUMENTS" (a shell line), with `input` on standard input.
  ShellResult ombra(const std::string& arguments, const std::string& input = {}, double limitSeconds = 60);
  // Runs any shell line in this user's environment.
  ShellResult run(const std::string& script, double limitSeconds = 120) {
    return shell(script, iEnvironment, {}, limitSeconds);
  }
  // Mounts and answers the mount point; fails the test when that does not work.
  std::string mount(const std::string& arguments);
  // The process number of the helper that serves a mount point; 0 when there is none.
  pid_t helperOf(const std::string& mountPath);

  // What the command lists and this user mounted, by mount point. Volumes of others may be there too: to the
  // system each of these users is the one who runs the tests.
  std::map<std::string, pid_t> volumes();

  const std::string& home() const { return iHome.path(); }
  std::map<std::string, std::string>& environment() { return iEnvironment; }
  // Puts the server's key into this user's known_hosts.
  void trust(const SshdFixture& server);

 private:
  // What the command lists, by mount point.
  std::map<std::string, pid_t> helpers();
  // Whether the process was started in this user's environment.
  bool started(pid_t process) const;
  // Whether a helper that this user started runs.
  bool aHelperRuns() const;

  TemporaryFolder iHome;
  std::map<std::string, std::string> iEnvironment;
  std::set<std::string> iMountPaths;
};

// Waits, by looking again, until the condition holds or `script` succeeds; false after `seconds`.
bool eventually(const std::function<bool()>& condition, double seconds = 15);
bool eventually(const std::string& script, double seconds = 15);
// True while a process of that number exists.
bool processExists(pid_t pid);
// True when the mount table has that path.
bool isMounted(const std::string& path);
// A name for a volume that no other process of the tests uses.
std::string ownName(const std::string& text);

// A user, a server with a folder, and key login set up between them. The server has an address that no other
// process of the tests uses, so that volumes named after it do not meet either.
class MountTest : public ::testing::Test {
 protected:
  void SetUp() override;

  // The URL of a folder on the server.
  std::string url(const std::string& path) const;
  // "mount" arguments for that folder with the server's client key.
  std::string mountArguments(const std::string& path) const;
  // A folder on the server, to prepare and compare.
  const std::string& data() const { return iData->path(); }

  std::unique_ptr<SshdFixture> server;
  std::unique_ptr<TemporaryFolder> iData;
  std::unique_ptr<OmbraUser> user;
};

}  // namespace ombra
