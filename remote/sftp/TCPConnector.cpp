#include "remote/sftp/TCPConnector.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct AddressesDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, AddressesDeleter>;

// One look-up in the background: the resolver has no limit of its own that could be set.
struct LookUp {
  std::string host;
  std::string service;
  addrinfo hints = {};
  gaicb request = {};
};

constexpr timespec kSlice = {0, 50'000'000};

void fail(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail, int number = 0) {
  NSErrorRef beneath = number != 0 ? NSError::errorWithDomain(NSPOSIXErrorDomain, number) : nullptr;
  storeError(error, QuarnKitError::errorWithCode(code, detail, std::move(beneath)));
}

addrinfo streamHints() {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  return hints;
}

Addresses numericAddresses(const std::string& host, const std::string& service) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  return Addresses(getaddrinfo(host.c_str(), service.c_str(), &hints, &list) == 0 ? list : nullptr);
}

Addresses lookUp(const std::string& host, const std::string& service, SteadyClock::time_point deadline,
                 const WakeUp& wakeUp, NSErrorRef* error) {
  auto look = std::make_unique<LookUp>(LookUp{host, service, streamHints(), {}});
  look->request.ar_name = look->host.c_str();
  look->request.ar_service = look->service.c_str();
  look->request.ar_request = &look->hints;
  gaicb* list[] = {&look->request};
  int result = getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr);
  while (result == 0 && gai_error(&look->request) == EAI_INPROGRESS) {
    const gaicb* const waited[] = {&look->request};
    gai_suspend(waited, 1, &kSlice);
    if (SteadyClock::now() < deadline && !wakeUp.isRaised()) continue;
    // A look-up that cannot be called off any more goes on writing to its request: that is left to it.
    if (gai_cancel(&look->request) == EAI_NOTCANCELED) (void)look.release();
    fail(error, wakeUp.isRaised() ? kQuarnKitConnectionLost : kQuarnKitCouldNotResolveHost, host);
    return nullptr;
  }
  if (result == 0) result = gai_error(&look->request);
  if (result == 0) return Addresses(look->request.ar_result);
  fail(error, kQuarnKitCouldNotResolveHost, host + ": " + gai_strerror(result));
  return nullptr;
}

void setOptions(int socket) {
  const int one = 1;
  // The buffer sizes stay the kernel's: it lets them grow to what the path needs, beyond what could be asked
  // for.
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
}

// A connected socket or -1 with errno set.
int connectAddress(const addrinfo& address, SteadyClock::time_point deadline, const WakeUp& wakeUp) {
  const int socket =
      ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol);
  if (socket < 0) return -1;
  setOptions(socket);
  int number = connect(socket, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
  if (number == EINPROGRESS) {
    number = ETIMEDOUT;
    if (waitForDescriptor(socket, POLLOUT, deadline, wakeUp)) {
      socklen_t length = sizeof(number);
      getsockopt(socket, SOL_SOCKET, SO_ERROR, &number, &length);
    }
  }
  if (number == 0) return socket;
  close(socket);
  errno = number;
  return -1;
}

}  // namespace

bool waitForDescriptor(int descriptor, short events, SteadyClock::time_point deadline, const WakeUp& wakeUp) {
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
    pollfd fds[2] = {{descriptor, events, 0}, {wakeUp.descriptor(), POLLIN, 0}};
    const int ready = poll(fds, 2, static_cast<int>(std::max<int64_t>(0, left.count())));
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && fds[1].revents == 0;
  }
}

int connectTCP(const std::string& host, int port, SteadyClock::time_point deadline, const WakeUp& wakeUp,
               NSErrorRef* error) {
  const std::string service = std::to_string(port);
  Addresses addresses = numericAddresses(host, service);
  if (!addresses) addresses = lookUp(host, service, deadline, wakeUp, error);
  if (!addresses) return -1;
  int number = 0;
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    // Half of what is left for each but the last, so that one dead address does not use up the limit.
    const auto now = SteadyClock::now();
    const auto end = address->ai_next != nullptr ? now + (deadline - now) / 2 : deadline;
    const int socket = connectAddress(*address, end, wakeUp);
    if (socket >= 0) return socket;
    number = errno;
    if (wakeUp.isRaised()) break;
  }
  const std::string detail = host + " port " + service + ": " + std::strerror(number);
  fail(error, wakeUp.isRaised() ? kQuarnKitConnectionLost : kQuarnKitCouldNotConnect, detail, number);
  return -1;
}

}  // namespace ombra
