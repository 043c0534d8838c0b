#include "remote/KCAuthorizationManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/foundation/KCStringAdditions.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

constexpr const char* kChown = "/usr/bin/chown";
constexpr const char* kChmod = "/usr/bin/chmod";
constexpr const char* kPkexec = "/usr/bin/pkexec";
constexpr const char* kSudo = "/usr/bin/sudo";
constexpr size_t kOutputLimit = 4096;
constexpr int kNotStarted = 127;
// pkexec's status when the user has said no; 127 is its "not authorised, or no way to ask".
constexpr int kDismissed = 126;

class Pipe {
 public:
  Pipe() {
    if (::pipe2(iEnds, O_CLOEXEC) != 0) iEnds[0] = iEnds[1] = -1;
  }
  ~Pipe() {
    closeWriter();
    if (iEnds[0] >= 0) ::close(iEnds[0]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  bool isOpen() const { return iEnds[0] >= 0; }
  int reader() const { return iEnds[0]; }
  int writer() const { return iEnds[1]; }
  void closeWriter() {
    if (iEnds[1] >= 0) ::close(iEnds[1]);
    iEnds[1] = -1;
  }

 private:
  int iEnds[2] = {-1, -1};
};

// Everything up to the end, of which the first bytes are kept.
std::string readOutput(int descriptor) {
  std::string kept;
  char buffer[1024];
  for (;;) {
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    kept.append(buffer, std::min(static_cast<size_t>(count), kOutputLimit - kept.size()));
  }
  const size_t end = kept.find_last_not_of(" \t\r\n");
  kept.resize(end == std::string::npos ? 0 : end + 1);
  return kept;
}

int waitForStatus(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return kNotStarted;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct SpawnSettings {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
};

// The child starts with no signal blocked or ignored, whatever the helper does with its own.
void resetSignals(SpawnSettings& settings) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&settings.attributes, &none);
  posix_spawnattr_setsigdefault(&settings.attributes, &all);
  posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

bool isLink(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

NSErrorRef refusal(const std::vector<std::string>& command, std::string_view words) {
  const std::string line = fmt::format("{}", fmt::join(command, " "));
  NSDictionary userInfo;
  userInfo.setObject(fmt::format("“{}” could not be run with administrator rights.", line),
                     NSLocalizedDescriptionKey);
  userInfo.setObject(words, NSLocalizedFailureReasonErrorKey);
  userInfo.setObject(fmt::format("Install the package again, or run as root: {}", line),
                     NSLocalizedRecoverySuggestionErrorKey);
  return QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, kEPERM, std::move(userInfo));
}

}  // namespace

KCAuthorizationManager& KCAuthorizationManager::sharedInstance() {
  static KCAuthorizationManager sManager;
  return sManager;
}

bool KCAuthorizationManager::chownWithPrivilegesItemAtPath(const std::string& path,
                                                           std::string_view withOwner, std::string_view group,
                                                           bool recursive, NSErrorRef* error) {
  // No group of this system is named wheel where Debian's group 0 is; the number is right everywhere.
  const std::string owner = fmt::format("{}:{}", withOwner, group == "wheel" ? "0" : group);
  std::vector<std::string> command{kChown, "-h"};
  if (recursive) command.insert(command.end(), {"-R", "-P"});
  command.insert(command.end(), {"--", owner, path});
  return runWithPrivileges(std::move(command), error);
}

bool KCAuthorizationManager::chmodWithPrivilegesItemAtPath(const std::string& path,
                                                           std::string_view withPermissions, bool recursive,
                                                           NSErrorRef* error) {
  std::vector<std::string> command{kChmod};
  if (recursive) command.emplace_back("-R");
  command.insert(command.end(), {"--", std::string(withPermissions), path});
  // chmod follows a link that it is given, to a file that nobody meant.
  if (isLink(path)) {
    storeError(error, refusal(command, "The item is a symbolic link."));
    return false;
  }
  return runWithPrivileges(std::move(command), error);
}

bool KCAuthorizationManager::runWithPrivileges(std::vector<std::string> command, NSErrorRef* error) {
  std::vector<std::vector<std::string>> ways;
  if (isRoot()) {
    ways.push_back({});
  } else {
    // Without its own agent pkexec would ask on the helper's terminal, where nobody sits.
    if (isExecutable(kPkexec)) {
      ways.push_back({kPkexec, "--disable-internal-agent"});
      if (!iStepProgram.empty()) ways.back().push_back(iStepProgram);
    }
    if (isExecutable(kSudo)) ways.push_back({kSudo, "-n", "--"});
  }
  std::string words = "Neither pkexec nor sudo is installed.";
  for (std::vector<std::string>& way : ways) {
    way.insert(way.end(), command.begin(), command.end());
    words.clear();
    const int status = run(way, &words);
    if (status == 0) return true;
    if (words.empty()) words = fmt::format("{} ended with status {}.", way.front(), status);
    if (status == kDismissed && way.front() == kPkexec) break;
  }
  storeError(error, refusal(command, words));
  return false;
}

int KCAuthorizationManager::runCommand(const std::vector<std::string>& arguments, std::string* output) {
  Pipe pipe;
  if (arguments.empty() || !pipe.isOpen()) return kNotStarted;
  SpawnSettings settings;
  resetSignals(settings);
  posix_spawn_file_actions_addopen(&settings.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&settings.actions, pipe.writer(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&settings.actions, pipe.writer(), STDERR_FILENO);
  // posix_spawn takes pointers to changeable text, and changes none.
  std::vector<std::string> copies(arguments);
  std::vector<char*> argv;
  for (std::string& copy : copies) argv.push_back(copy.data());
  argv.push_back(nullptr);
  std::string variables[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"};
  char* environment[] = {variables[0].data(), variables[1].data(), nullptr};
  pid_t child = 0;
  const int failure =
      ::posix_spawn(&child, argv[0], &settings.actions, &settings.attributes, argv.data(), environment);
  pipe.closeWriter();
  if (failure != 0) {
    if (output != nullptr) *output = fmt::format("{}: {}", arguments[0], kc_strerror(failure));
    return kNotStarted;
  }
  std::string words = readOutput(pipe.reader());
  if (output != nullptr) *output = std::move(words);
  return waitForStatus(child);
}

int KCAuthorizationManager::run(const std::vector<std::string>& arguments, std::string* output) {
  return runCommand(arguments, output);
}

bool KCAuthorizationManager::isRoot() const { return ::geteuid() == 0; }

bool KCAuthorizationManager::isExecutable(const std::string& path) const {
  return ::access(path.c_str(), X_OK) == 0;
}

}  // namespace ombra
