#include "tests/support/ServerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>

#include "tests/support/Loopback.h"

namespace ombra {
namespace {

constexpr std::chrono::seconds kServerStartLimit{20};
// Ends the server when the thread that started it is gone.
constexpr const char* kDeathSignalLauncher = "/usr/bin/setpriv";

int millisecondsUntil(std::chrono::steady_clock::time_point end) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

}  // namespace

ServerProcess::~ServerProcess() {
  stop();
  closeOutput();
}

std::string ServerProcess::findProgram(const std::string& name) {
  for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/"}) {
    if (access((folder + name).c_str(), X_OK) == 0) return folder + name;
  }
  return {};
}

// Tests of other programs run at the same time and take ports as well. This one stays bound, without
// listening: then the kernel chooses it for nobody else, and a server that binds to it succeeds, since both
// say that the address may be reused. The descriptor is left open on purpose.
int ServerProcess::freePort() {
  const int reservation = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  sockaddr_in address = loopbackAddress(0);
  socklen_t length = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  if (setsockopt(reservation, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(reservation, plain, length) != 0 || getsockname(reservation, plain, &length) != 0)
    return 0;
  return ntohs(address.sin_port);
}

bool ServerProcess::start(const std::vector<std::string>& command, const std::string& ready, int port) {
  stop();
  closeOutput();
  iLog.clear();
  std::array<int, 2> output{};
  if (pipe2(output.data(), O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
  std::vector<std::string> words = command;
  if (access(kDeathSignalLauncher, X_OK) == 0)
    words.insert(words.begin(), {kDeathSignalLauncher, "--pdeathsig", "TERM"});
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const int failed = posix_spawnp(&iProcess, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(output[1]);
  iOutput = output[0];
  if (failed != 0) {
    iProcess = -1;
    iLog = std::strerror(failed);
    return false;
  }
  if (ready.empty() ? waitForPort(port) : waitForOutput(ready)) return true;
  stop();
  return false;
}

bool ServerProcess::waitForOutput(const std::string& text) {
  const auto end = std::chrono::steady_clock::now() + kServerStartLimit;
  std::array<char, 4096> buffer{};
  while (iLog.find(text) == std::string::npos) {
    pollfd waiting{iOutput, POLLIN, 0};
    if (poll(&waiting, 1, millisecondsUntil(end)) <= 0) return false;
    const ssize_t count = read(iOutput, buffer.data(), buffer.size());
    if (count <= 0) return false;
    iLog.append(buffer.data(), static_cast<size_t>(count));
  }
  return true;
}

// There is nothing else to wait on where a server does not say that it listens.
bool ServerProcess::waitForPort(int port) {
  const auto end = std::chrono::steady_clock::now() + kServerStartLimit;
  while (std::chrono::steady_clock::now() < end) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(port);
    const bool listens = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(socket);
    if (listens) return true;
    // The pipe ends when the program does: no need to wait any longer then.
    pollfd waiting{iOutput, POLLIN, 0};
    std::array<char, 4096> buffer{};
    if (poll(&waiting, 1, 5) <= 0) continue;
    const ssize_t count = read(iOutput, buffer.data(), buffer.size());
    if (count <= 0) return false;
    iLog.append(buffer.data(), static_cast<size_t>(count));
  }
  return false;
}

void ServerProcess::stop() {
  if (iProcess > 0) {
    kill(iProcess, SIGTERM);
    waitpid(iProcess, nullptr, 0);
  }
  iProcess = -1;
}

void ServerProcess::closeOutput() {
  if (iOutput >= 0) close(iOutput);
  iOutput = -1;
}

}  // namespace ombra
