#include "remote/net/TCPConnector.h"

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
#include <system_error>
#include <thread>

#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct AddressesDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, AddressesDeleter>;

// One look-up on a thread of its own, since the resolver has no limit that could be set. The thread and the
// waiter both own it.
struct LookUp {
  LookUp(std::string name, std::string port) : host(std::move(name)), service(std::move(port)) {}

  void run() {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* list = nullptr;
    result = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
    if (result == 0) addresses.reset(list);
    done.raise();
  }

  const std::string host;
  const std::string service;
  int result = EAI_SYSTEM;
  Addresses addresses;
  WakeUp done;
};

void fail(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail, int number = 0) {
  NSErrorRef beneath = number != 0 ? NSError::errorWithDomain(NSPOSIXErrorDomain, number) : nullptr;
  storeError(error, QuarnKitError::errorWithCode(code, detail, std::move(beneath)));
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
  const auto look = std::make_shared<LookUp>(host, service);
  std::thread thread;
  try {
    thread = std::thread([look] { look->run(); });
  } catch (const std::system_error& problem) {
    fail(error, kQuarnKitCouldNotResolveHost, host, problem.code().value());
    return nullptr;
  }
  if (!waitForDescriptor(look->done.descriptor(), POLLIN, deadline, wakeUp)) {
    // It cannot be called off and touches nothing but what it owns: it ends when the resolver gives up.
    thread.detach();
    fail(error, wakeUp.isRaised() ? kQuarnKitConnectionLost : kQuarnKitCouldNotResolveHost, host);
    return nullptr;
  }
  thread.join();
  if (look->result == 0) return std::move(look->addresses);
  fail(error, kQuarnKitCouldNotResolveHost, host + ": " + gai_strerror(look->result));
  return nullptr;
}

void setOptions(int socket) {
  const int one = 1;
  // The buffer sizes stay the kernel's: it lets them grow to what the path needs, beyond what could be asked
  // for.
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
  // A network that is gone is noticed within half a minute also where a silent server is waited for longer.
  const int idleSeconds = 10;
  const int secondsBetween = 5;
  const int probes = 4;
  setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof(idleSeconds));
  setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &secondsBetween, sizeof(secondsBetween));
  setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes));
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
