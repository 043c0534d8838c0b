#include "frontend/ChildProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "frontend/Deadline.h"
#include "frontend/UniqueFd.h"

namespace ombra {

namespace {

constexpr size_t kMaximumOutput = 16 * 1024;

pid_t start(const std::vector<std::string>& arguments, int outputEnd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outputEnd, 1);
  posix_spawn_file_actions_adddup2(&actions, outputEnd, 2);
  // Some of them go on by themselves, and must not hold what this process was started with: a lock, a pipe.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t child = -1;
  if (posix_spawnp(&child, arguments.front().c_str(), &actions, nullptr, argumentPointers(arguments).data(),
                   environ) != 0) {
    child = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

// Collects output until its end. False when the time is up.
bool collect(int fd, const Deadline& deadline, std::string* output) {
  while (!deadline.passed()) {
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, deadline.pollTimeout()) <= 0) continue;
    std::array<char, 1024> buffer{};
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return true;
    if (output->size() < kMaximumOutput) output->append(buffer.data(), static_cast<size_t>(count));
  }
  return false;
}

}  // namespace

std::vector<char*> argumentPointers(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  // The system's signature lacks the const; nothing writes through these.
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

std::optional<ProgramResult> runProgram(const std::vector<std::string>& arguments,
                                        std::chrono::milliseconds limit) {
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t child = start(arguments, writeEnd.get());
  writeEnd.reset();
  if (child < 0) return std::nullopt;
  ProgramResult result;
  const bool ended = collect(readEnd.get(), Deadline(limit), &result.output);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!ended) return std::nullopt;
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace ombra
