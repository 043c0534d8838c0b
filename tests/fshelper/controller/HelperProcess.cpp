#include "tests/fshelper/controller/HelperProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace ombra {
namespace {

constexpr int kWatchdogMilliseconds = 60000;
const std::string kProgram = OMBRA_BUILD_DIR "/libexec/ombrafs/ombrafs-helper";

std::vector<std::string> environmentBelow(const std::string& folder, const std::string& busAddress) {
  std::vector<std::string> environment{
      "PATH=/usr/sbin:/usr/bin:/sbin:/bin",    "HOME=" + folder,
      "XDG_CONFIG_HOME=" + folder + "/config", "XDG_DATA_HOME=" + folder + "/data",
      "XDG_STATE_HOME=" + folder + "/state",   "XDG_RUNTIME_DIR=" + folder + "/run",
      "OMBRAFS_TMPDIR=" + folder + "/tmp"};
  if (!busAddress.empty()) environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + busAddress);
  // Sanitizers are told what to do by their own variables.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
  }
  return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

HelperProcess::HelperProcess(const std::string& folder, const std::string& busAddress,
                             const std::vector<std::string>& arguments) {
  std::vector<std::string> words{kProgram};
  words.insert(words.end(), arguments.begin(), arguments.end());
  words.insert(words.end(), {"-VolumesFolder", folder + "/Volumes"});
  std::vector<std::string> variables = environmentBelow(folder, busAddress);
  // What it says before its log is open helps when a test fails.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (folder + "/early.log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  const int failure = ::posix_spawn(&iProcess, kProgram.c_str(), &actions, nullptr, pointersTo(words).data(),
                                    pointersTo(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(failure, 0) << kProgram << ": " << std::strerror(failure);
}

HelperProcess::~HelperProcess() {
  if (iProcess > 0 && iEnd.empty()) {
    ::kill(iProcess, SIGTERM);
    end();
  }
}

void HelperProcess::signal(int number) const { ::kill(iProcess, number); }

std::string HelperProcess::end() {
  if (!iEnd.empty() || iProcess <= 0) return iEnd;
  const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, iProcess, 0));
  pollfd ended{descriptor, POLLIN, 0};
  const bool inTime = ::poll(&ended, 1, kWatchdogMilliseconds) == 1;
  ::close(descriptor);
  if (!inTime) ::kill(iProcess, SIGKILL);
  int status = 0;
  ::waitpid(iProcess, &status, 0);
  if (!inTime) {
    iEnd = "still running";
  } else if (WIFEXITED(status)) {
    iEnd = "exit " + std::to_string(WEXITSTATUS(status));
  } else {
    iEnd = "signal " + std::to_string(WTERMSIG(status));
  }
  return iEnd;
}

}  // namespace ombra
