#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace ombra {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  std::vector<std::string> copies = arguments;
  std::vector<char*> pointers;
  for (std::string& copy : copies) pointers.push_back(copy.data());
  pointers.push_back(nullptr);
  if (posix_spawnp(&iPid, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) iPid = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  iOutput = ends[0];
}

ChildProcess::~ChildProcess() {
  if (iOutput >= 0) close(iOutput);
  if (iPid <= 0) return;
  kill(iPid, SIGTERM);
  waitpid(iPid, nullptr, 0);
}

std::string ChildProcess::waitForLine(const std::string& text) {
  std::string read;
  char c = 0;
  while (::read(iOutput, &c, 1) == 1) {
    read += c;
    if (c == '\n' && read.find(text) != std::string::npos) return read;
  }
  return {};
}

std::string ChildProcess::readToEnd() {
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while ((count = ::read(iOutput, buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<size_t>(count));
  }
  return text;
}

int ChildProcess::wait() {
  int status = -1;
  if (iPid > 0) waitpid(iPid, &status, 0);
  iPid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool runProgram(const std::vector<std::string>& arguments, std::string* output) {
  ChildProcess child(arguments);
  std::string text = child.readToEnd();
  if (output != nullptr) *output = std::move(text);
  return child.wait() == 0;
}

}  // namespace ombra
