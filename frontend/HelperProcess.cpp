#include "frontend/HelperProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "frontend/ChildProgram.h"
#include "frontend/ProcessDescriptor.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

constexpr off_t kWordsSize = 64 * 1024;

// Memory for what the helper says before its log is open. It cannot grow: a helper that never opens its log
// must neither fill the memory nor wait for a reader that has gone.
UniqueFd makeWords() {
  UniqueFd words(memfd_create("ombra-helper", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!words || ftruncate(words.get(), kWordsSize) != 0) return {};
  fcntl(words.get(), F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL);
  return words;
}

struct SpawnSettings {
  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};

  explicit SpawnSettings(int words) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (words >= 0) {
      posix_spawn_file_actions_adddup2(&actions, words, 2);
    } else {
      posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawn_file_actions_addchdir_np(&actions, "/");  // so that it holds no folder busy
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes, &all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
};

}  // namespace

std::vector<std::string> HelperArguments::list() const {
  std::vector<std::string> result{"--sock=" + socketPath, "--uuid=" + registeredName};
  if (name) result.push_back("--name=" + *name);
  if (icon) result.push_back("--icon=" + *icon);
  if (passthrough) result.push_back("--passthrough=" + *passthrough);
  return result;
}

std::string helperPathForCommand(const std::string& commandPath) {
  const std::string prefix =
      stringByDeletingLastPathComponent(stringByDeletingLastPathComponent(commandPath));
  return stringByAppendingPathComponent(prefix, "libexec/ombrafs/ombrafs-helper");
}

std::unique_ptr<HelperProcess> HelperProcess::start(const std::string& executable,
                                                    const HelperArguments& arguments, Failure* failure) {
  std::vector<std::string> all{executable};
  for (std::string& argument : arguments.list()) all.push_back(std::move(argument));
  UniqueFd words = makeWords();
  const SpawnSettings settings(words.get());
  pid_t pid = -1;
  const int error = posix_spawn(&pid, executable.c_str(), &settings.actions, &settings.attributes,
                                argumentPointers(all).data(), environ);
  if (error != 0) {
    *failure = {kExitCannotMount, fmt::format("The helper {} cannot be started.", inQuotes(executable)),
                std::strerror(error), "Install the program again."};
    return nullptr;
  }
  return std::unique_ptr<HelperProcess>(new HelperProcess(pid, openProcess(pid), std::move(words)));
}

HelperProcess::HelperProcess(pid_t pid, UniqueFd process, UniqueFd words)
    : iPid(pid), iProcess(std::move(process)), iWords(std::move(words)) {}

bool HelperProcess::hasEnded() const { return waitForEnd(0); }

bool HelperProcess::waitForEnd(int milliseconds) const {
  pollfd waiting{iProcess.get(), POLLIN, 0};
  return poll(&waiting, 1, milliseconds) > 0;
}

void HelperProcess::signal(int number) const { signalProcess(iProcess, number); }

void HelperProcess::terminate() const { signal(SIGTERM); }

void HelperProcess::kill() const { signal(SIGKILL); }

std::string HelperProcess::lastWords() const {
  if (!iWords) return {};
  std::string words(kWordsSize, '\0');
  const ssize_t count = pread(iWords.get(), words.data(), words.size(), 0);
  words.resize(count > 0 ? static_cast<size_t>(count) : 0);
  words.resize(std::min(words.find('\0'), words.size()));
  while (words.ends_with('\n')) words.pop_back();
  size_t start = words.size();
  for (int lines = 0; lines < 3 && start != std::string::npos && start > 0; ++lines)
    start = words.rfind('\n', start - 1);
  return start == std::string::npos
             ? words
             : words.substr(start + (start < words.size() && words[start] == '\n' ? 1 : 0));
}

}  // namespace ombra
