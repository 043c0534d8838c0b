#include "tests/integration/Shell.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <stdexcept>

namespace ombra {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct Pipes {
  std::array<int, 2> in{-1, -1}, out{-1, -1}, err{-1, -1};
};

[[noreturn]] void runChild(const Pipes& pipes, const std::string& script,
                           const std::map<std::string, std::string>& environment) {
  setpgid(0, 0);
  dup2(pipes.in[0], 0);
  dup2(pipes.out[1], 1);
  dup2(pipes.err[1], 2);
  for (const auto& [name, value] : environment) {
    if (value.empty()) {
      unsetenv(name.c_str());
    } else {
      setenv(name.c_str(), value.c_str(), 1);
    }
  }
  execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
  _exit(127);
}

// Reads what is there; false at the end of the pipe.
bool drain(int descriptor, std::string* text) {
  std::array<char, 65536> buffer{};
  const ssize_t got = read(descriptor, buffer.data(), buffer.size());
  if (got > 0) text->append(buffer.data(), static_cast<size_t>(got));
  return got > 0;
}

void collect(const Pipes& pipes, pid_t child, SteadyClock::time_point deadline, ShellResult* result) {
  std::array<pollfd, 2> open{pollfd{pipes.out[0], POLLIN, 0}, pollfd{pipes.err[0], POLLIN, 0}};
  while (open[0].fd >= 0 || open[1].fd >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    if (left <= 0) {
      kill(-child, SIGKILL);
      result->errors += "(killed: took too long)\n";
      return;
    }
    if (poll(open.data(), open.size(), static_cast<int>(left)) <= 0) continue;
    if (open[0].revents != 0 && !drain(open[0].fd, &result->output)) open[0].fd = -1;
    if (open[1].revents != 0 && !drain(open[1].fd, &result->errors)) open[1].fd = -1;
  }
}

}  // namespace

ShellResult shell(const std::string& script, const std::map<std::string, std::string>& environment,
                  const std::string& input, double limitSeconds) {
  Pipes pipes;
  if (pipe2(pipes.in.data(), O_CLOEXEC) != 0 || pipe2(pipes.out.data(), O_CLOEXEC) != 0 ||
      pipe2(pipes.err.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  const auto start = SteadyClock::now();
  const pid_t child = fork();
  if (child == 0) runChild(pipes, script, environment);
  close(pipes.in[0]);
  close(pipes.out[1]);
  close(pipes.err[1]);
  // Inputs are a few bytes (a password, an answer), so that this cannot block.
  if (!input.empty() && write(pipes.in[1], input.data(), input.size()) < 0) kill(-child, SIGKILL);
  close(pipes.in[1]);

  ShellResult result;
  collect(pipes, child, start + std::chrono::milliseconds(static_cast<int64_t>(limitSeconds * 1000)),
          &result);
  int status = 0;
  waitpid(child, &status, 0);
  result.seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  close(pipes.out[0]);
  close(pipes.err[0]);
  return result;
}

std::string shellWord(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

}  // namespace ombra
