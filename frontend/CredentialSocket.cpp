#include "frontend/CredentialSocket.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frontend/Deadline.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

using Result = CredentialSocket::Result;

bool isOwnFolder(const std::string& path) {
  struct stat status {};
  return !path.empty() && path.front() == '/' && lstat(path.c_str(), &status) == 0 &&
         S_ISDIR(status.st_mode) && status.st_uid == geteuid() && access(path.c_str(), W_OK | X_OK) == 0;
}

UniqueFd listenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(fd.get(), 4) != 0) {
    return {};
  }
  return fd;
}

bool isOwnUser(const ucred& peer) { return peer.uid == geteuid(); }

bool peerIsAllowed(int fd, const CredentialSocket::Hand& hand) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || length != sizeof(peer)) return false;
  return hand.isAllowed ? hand.isAllowed(peer) : isOwnUser(peer);
}

// Waits until `fd` is ready for `events`, or one of the two others is readable, or the time is up.
enum class Wait { kReady, kHelperEnded, kInterrupted, kTimedOut };

Wait waitFor(int fd, short events, const CredentialSocket::Hand& hand, const Deadline& deadline) {
  while (true) {
    std::array<pollfd, 3> waiting{
        {{fd, events, 0}, {hand.helperFd, POLLIN, 0}, {hand.interruptionFd, POLLIN, 0}}};
    const int count = poll(waiting.data(), waiting.size(), deadline.pollTimeout());
    if (count < 0 && errno != EINTR) return Wait::kTimedOut;
    if (count > 0 && waiting[2].revents != 0) return Wait::kInterrupted;
    if (count > 0 && waiting[0].revents != 0) return Wait::kReady;
    if (count > 0 && waiting[1].revents != 0) return Wait::kHelperEnded;
    if (deadline.passed()) return Wait::kTimedOut;
  }
}

// Reads until the name is complete. The visitor sends no end: it waits for the answer with its side open.
Wait readName(int fd, const CredentialSocket::Hand& hand, const Deadline& deadline, bool* matches) {
  std::string received;
  *matches = false;
  while (received.size() < hand.registeredName.size()) {
    const Wait wait = waitFor(fd, POLLIN, hand, deadline);
    if (wait != Wait::kReady) return wait;
    std::array<char, 256> buffer{};
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return Wait::kReady;
    received.append(buffer.data(), static_cast<size_t>(count));
    if (!hand.registeredName.starts_with(received)) return Wait::kReady;
  }
  *matches = received == hand.registeredName;
  return Wait::kReady;
}

Wait sendArchive(int fd, const CredentialSocket::Hand& hand, const Deadline& deadline, bool* sent) {
  size_t done = 0;
  *sent = false;
  while (done < hand.archive.size()) {
    const Wait wait = waitFor(fd, POLLOUT, hand, deadline);
    if (wait != Wait::kReady) return wait;
    const ssize_t count = send(fd, hand.archive.data() + done, hand.archive.size() - done, MSG_NOSIGNAL);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return Wait::kReady;
    done += static_cast<size_t>(count);
  }
  *sent = true;
  return Wait::kReady;
}

// One visitor from its arrival to its end. True when it got the credentials.
Wait attend(const UniqueFd& visitor, const CredentialSocket::Hand& hand, bool* served) {
  *served = false;
  if (!peerIsAllowed(visitor.get(), hand)) return Wait::kReady;
  const Deadline deadline(hand.perConnectionLimit);
  bool matches = false;
  const Wait wait = readName(visitor.get(), hand, deadline, &matches);
  if (wait != Wait::kReady || !matches) return wait;
  return sendArchive(visitor.get(), hand, deadline, served);
}

Result resultOf(Wait wait) {
  switch (wait) {
    case Wait::kHelperEnded:
      return Result::kHelperEnded;
    case Wait::kInterrupted:
      return Result::kInterrupted;
    case Wait::kTimedOut:
      return Result::kTimedOut;
    case Wait::kReady:
      break;
  }
  return Result::kFailed;
}

}  // namespace

std::unique_ptr<CredentialSocket> CredentialSocket::create(Failure* failure) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return createIn({runtime == nullptr ? "" : runtime, NSFileManager::kc_confstr(kDarwinUserTempDir)},
                  failure);
}

std::unique_ptr<CredentialSocket> CredentialSocket::createIn(const std::vector<std::string>& folders,
                                                             Failure* failure) {
  std::string tried;
  for (const std::string& candidate : folders) {
    if (!candidate.empty()) tried += (tried.empty() ? "" : ", ") + inQuotes(candidate);
    std::string folder = candidate + "/ombra-XXXXXX";
    if (!isOwnFolder(candidate) || folder.size() + 2 > kMaximumPathLength) continue;
    if (mkdtemp(folder.data()) == nullptr) continue;
    const std::string path = folder + "/s";
    UniqueFd listener = listenAt(path);
    if (listener)
      return std::unique_ptr<CredentialSocket>(new CredentialSocket(folder, path, std::move(listener)));
    unlink(path.c_str());
    rmdir(folder.c_str());
  }
  *failure = {
      kExitCannotMount, "There is no folder for the credential socket.",
      fmt::format("It needs a folder of your own with a path of less than 90 bytes; tried {}.", tried),
      "Set XDG_RUNTIME_DIR to such a folder."};
  return nullptr;
}

CredentialSocket::CredentialSocket(std::string folder, std::string path, UniqueFd listener)
    : iFolder(std::move(folder)), iPath(std::move(path)), iListener(std::move(listener)) {}

CredentialSocket::~CredentialSocket() { remove(); }

void CredentialSocket::remove() {
  iListener.reset();
  if (iFolder.empty()) return;
  unlink(iPath.c_str());
  rmdir(iFolder.c_str());
  iFolder.clear();
}

CredentialSocket::Result CredentialSocket::serve(const Hand& hand) {
  const Deadline deadline(hand.limit);
  while (iListener) {
    const Wait wait = waitFor(iListener.get(), POLLIN, hand, deadline);
    if (wait != Wait::kReady) return resultOf(wait);
    const UniqueFd visitor(accept4(iListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!visitor) {
      if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) continue;
      return Result::kFailed;
    }
    bool served = false;
    const Wait attended = attend(visitor, hand, &served);
    if (served) return Result::kServed;
    // A visitor that dawdles is turned away; the one that is meant may still come.
    if (attended == Wait::kHelperEnded || attended == Wait::kInterrupted) return resultOf(attended);
  }
  return Result::kFailed;
}

}  // namespace ombra
