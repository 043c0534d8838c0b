#include "frontend/SessionBus.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "frontend/ChildProgram.h"
#include "frontend/HelperBus.h"
#include "frontend/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

constexpr size_t kMaximumSocketPath = 107;

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// Where the session's bus would be; empty when nothing points to one.
std::string sessionAddress() {
  std::string address = environmentValue("DBUS_SESSION_BUS_ADDRESS");
  if (!address.empty()) return address;
  const std::string runtime = environmentValue("XDG_RUNTIME_DIR");
  const std::string path = runtime + "/bus";
  if (runtime.empty() || access(path.c_str(), F_OK) != 0) return {};
  return SessionBus::addressForPath(path);
}

bool answers(const std::string& address) {
  return !address.empty() && HelperBus::connect(address) != nullptr;
}

std::string busPath() {
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  return folder.empty() ? std::string() : folder + "/bus";
}

void writeProcessNumber(const std::string& path, const std::string& number) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  // Only for the curious and for tidying up; the bus itself is known by its address.
  if (file) (void)!write(file.get(), number.data(), number.size());
}

bool startPrivateBus(const std::string& path, Failure* failure) {
  unlink(path.c_str());  // left by a bus that ended; nobody answers there
  const auto result = runProgram({"dbus-daemon", "--session", "--address=" + SessionBus::addressForPath(path),
                                  "--nopidfile", "--fork", "--print-pid=1"},
                                 std::chrono::seconds(10));
  if (result && result->exitStatus == 0) {
    writeProcessNumber(path + ".pid", result->output.substr(0, result->output.find('\n') + 1));
    return true;
  }
  *failure = {kExitCannotMount, "There is no message bus, and a private one cannot be started.",
              result && !result->output.empty() ? sentence(result->output)
                                                : "The program dbus-daemon is missing or does not start.",
              "Install the package dbus-daemon."};
  return false;
}

bool ensurePrivateBus(Failure* failure) {
  const std::string path = busPath();
  if (path.empty() || path.size() > kMaximumSocketPath) {
    *failure = {kExitCannotMount, "There is no message bus, and no place for a private one.",
                path.empty() ? "The temporary folder of the user cannot be used."
                             : "Its path is too long for a socket.",
                "Check the folder /var/tmp/ombrafs-UID (UID is your user number), or set OMBRAFS_TMPDIR."};
    return false;
  }
  // Two commands at once must not start two: the second would unlink the socket of the first.
  const UniqueFd lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  while (lock && flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {
  }
  const std::string address = SessionBus::addressForPath(path);
  if (!answers(address) && !startPrivateBus(path, failure)) return false;
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  return true;
}

}  // namespace

std::string SessionBus::addressForPath(std::string_view path) {
  constexpr std::string_view kPlain = "-_/.\\*abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string address = "unix:path=";
  for (const char c : path) {
    if (kPlain.find(c) != std::string_view::npos) {
      address += c;
    } else {
      address += fmt::format("%{:02x}", static_cast<unsigned char>(c));
    }
  }
  return address;
}

std::string SessionBus::privateAddress() {
  const std::string path = busPath();
  return path.empty() ? path : addressForPath(path);
}

bool SessionBus::ensure(Failure* failure) {
  const std::string address = sessionAddress();
  if (!answers(address)) return ensurePrivateBus(failure);
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  return true;
}

std::string SessionBus::desktopAddress() {
  std::string address = sessionAddress();
  // The command itself puts the private one into its environment.
  return address != privateAddress() && answers(address) ? address : std::string();
}

std::vector<std::string> SessionBus::answeringAddresses() {
  std::vector<std::string> found;
  for (const std::string& address : {sessionAddress(), privateAddress()}) {
    const bool seen = !found.empty() && found.front() == address;
    if (!seen && answers(address)) found.push_back(address);
  }
  return found;
}

}  // namespace ombra
