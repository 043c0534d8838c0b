#include "remote/sftp/PipeTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr size_t kBufferLength = 256 * 1024;
constexpr int kSocketBuffer = 1024 * 1024;

NSErrorRef posixError(int number) { return NSError::errorWithDomain(NSPOSIXErrorDomain, number); }

// A child's end becomes its standard input and output; all else was opened close-on-exec.
int spawnServer(const std::string& program, int childSocket, pid_t* child) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childSocket, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, childSocket, STDOUT_FILENO);
  const char* home = std::getenv("HOME");
  if (home != nullptr && access(home, X_OK) == 0) posix_spawn_file_actions_addchdir_np(&actions, home);

  // The helper ignores SIGPIPE and blocks what its signal thread takes; the child starts with neither.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  char* const arguments[] = {const_cast<char*>(program.c_str()),
                             nullptr};  // NOLINT: the call's old signature
  const int result = posix_spawn(child, program.c_str(), &actions, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return result;
}

void enlargeBuffers(int socket) {
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
  setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
}

}  // namespace

PipeTransport::PipeTransport(std::string program) : iProgram(std::move(program)), iBuffer(kBufferLength) {}

PipeTransport::PipeTransport(int socket) : iSocket(socket), iBuffer(kBufferLength) {}

PipeTransport::~PipeTransport() {
  if (iSocket >= 0) close(iSocket);
  if (iChild > 0) {
    // It has nothing left to say and would end by itself; whether it does must not hold up this thread.
    kill(iChild, SIGKILL);
    waitpid(iChild, nullptr, 0);
  }
}

bool PipeTransport::open(NSErrorRef* error) {
  if (!iProgram.empty() && !start(error)) return false;
  fcntl(iSocket, F_SETFL, fcntl(iSocket, F_GETFL) | O_NONBLOCK);
  return true;
}

bool PipeTransport::start(NSErrorRef* error) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, iProgram, posixError(errno)));
    return false;
  }
  iSocket = pair[0];
  enlargeBuffers(pair[0]);
  enlargeBuffers(pair[1]);
  const int result = spawnServer(iProgram, pair[1], &iChild);
  close(pair[1]);
  if (result == 0) return true;
  iChild = -1;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, iProgram, posixError(result)));
  return false;
}

std::optional<SFTPTransport::Exchanged> PipeTransport::exchange(std::span<const std::byte> outgoing,
                                                                std::chrono::milliseconds limit,
                                                                Receiver& receiver, NSErrorRef* error) {
  pollfd fds[2] = {{iSocket, POLLIN, 0}, {iWakeUp.descriptor(), POLLIN, 0}};
  if (!outgoing.empty()) fds[0].events |= POLLOUT;
  const int ready = poll(fds, 2, static_cast<int>(limit.count()));
  Exchanged exchanged;
  if (ready == 0 || (ready < 0 && errno == EINTR)) return exchanged;
  bool stands = ready > 0 && fds[1].revents == 0;
  if (stands && (fds[0].revents & POLLOUT)) stands = sendSome(outgoing, &exchanged);
  // What came before the end is still an answer: also after a failed send.
  if (ready > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
    stands = receiveSome(receiver, &exchanged) && stands;
  if (stands) return exchanged;
  storeError(error,
             QuarnKitError::errorWithCode(kQuarnKitConnectionLost, fds[1].revents ? "interrupted" : ""));
  return std::nullopt;
}

bool PipeTransport::sendSome(std::span<const std::byte> outgoing, Exchanged* exchanged) {
  const ssize_t count = send(iSocket, outgoing.data(), outgoing.size(), MSG_NOSIGNAL);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  exchanged->sent = static_cast<size_t>(count);
  exchanged->moved = count > 0;
  return true;
}

bool PipeTransport::receiveSome(Receiver& receiver, Exchanged* exchanged) {
  const ssize_t count = recv(iSocket, iBuffer.data(), iBuffer.size(), 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  exchanged->moved = true;
  receiver.received({iBuffer.data(), static_cast<size_t>(count)});
  return true;
}

void PipeTransport::interrupt() { iWakeUp.raise(); }

}  // namespace ombra
