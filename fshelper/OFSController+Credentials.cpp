// The helper's side of the credential hand-off.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "fshelper/OFSController.h"
#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSUnarchiver.h"
#include "platform/foundation/NSUserDefaults.h"

namespace ombra {
namespace {

constexpr const char* kSignature = "+[OFSController credentialsForRegisteredName:usingSocketPath:]";
// The front end's system has four bytes less for a socket path than this one.
constexpr size_t kPathLimit = 104;
constexpr size_t kChunk = 1024;
// No archive of credentials is larger; what comes beyond it is read and dropped, and refused with the rest.
constexpr size_t kAnswerLimit = size_t{1} << 20;

class Socket {
 public:
  explicit Socket(int descriptor) : iDescriptor(descriptor) {}
  ~Socket() {
    if (iDescriptor >= 0) ::close(iDescriptor);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int descriptor() const { return iDescriptor; }

 private:
  const int iDescriptor;
};

// -1 when nobody listens. The path is cut, the length is that of the whole path: one that is longer than any
// address is refused by `connect` itself, which the block is long enough for.
int connectedSocket(const std::string& path) {
  const size_t length = offsetof(sockaddr_un, sun_path) + path.size();
  std::vector<std::max_align_t> block(
      (std::max(length, sizeof(sockaddr_storage)) / sizeof(std::max_align_t)) + 1);
  auto* address = reinterpret_cast<sockaddr_un*>(block.data());
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.data(), std::min(path.size(), kPathLimit));
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(address), static_cast<socklen_t>(length)) ==
      -1) {
    return -1;  // the descriptor stays open: without credentials the process ends
  }
  return descriptor;
}

// Everything up to the end of the stream. Holds a password: wiped by the caller, and never moved while it
// grows.
NSData readAnswer(int descriptor) {
  NSData answer;
  answer.reserve(kAnswerLimit + kChunk);
  NSData buffer(kChunk);
  for (;;) {
    errno = 0;
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
    if (count == 0) break;
    if (count == -1) {
      const int number = errno;
      if (number == EINTR) continue;
      wipe(buffer);
      wipe(answer);
      OFS_RAISE(kSignature, "read failed, errno = {} ({})", number, kc_strerror(number));
    }
    if (answer.size() <= kAnswerLimit) answer.insert(answer.end(), buffer.begin(), buffer.begin() + count);
  }
  wipe(buffer);
  return answer;
}

}  // namespace

std::shared_ptr<KCCredentials> OFSController::credentialsForRegisteredName(
    const std::string& registeredName, const std::string& usingSocketPath) {
  NSData answer;
  {
    const int connected = connectedSocket(usingSocketPath);
    if (connected == -1) return nullptr;
    const Socket socket(connected);
    // A front end that is gone shows in the answer, which is then empty.
    [[maybe_unused]] const ssize_t written =
        ::write(socket.descriptor(), registeredName.c_str(), std::strlen(registeredName.c_str()));
    answer = readAnswer(socket.descriptor());
  }
  std::string reason;
  std::shared_ptr<KCCredentials> credentials = KCCredentials::credentialsWithArchivedData(answer, &reason);
  wipe(answer);
  if (credentials == nullptr) {
    NSLog("The front end's answer holds no credentials: {}", reason);
    return nullptr;
  }
  credentials->setUseVerboseLogging(gTracingEnabled.load() ||
                                    NSUserDefaults::standardUserDefaults().boolForKey("UseVerboseLogging"));
  return credentials;
}

}  // namespace ombra
