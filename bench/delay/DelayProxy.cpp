#include "bench/delay/DelayProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t kChunk = 256 * 1024;
// Of each direction: enough for a gigabit per second at half a second, and an end to what a sender can take.
constexpr size_t kMost = 64 * 1024 * 1024;

sockaddr_in addressOf(const std::string& address, int port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &result.sin_addr);
  return result;
}

const sockaddr* plain(const sockaddr_in& address) {
  return static_cast<const sockaddr*>(static_cast<const void*>(&address));
}

void switchOn(int descriptor, int level, int option) {
  const int on = 1;
  setsockopt(descriptor, level, option, &on, sizeof on);
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

DelayProxy::DelayProxy(Clock::duration roundTrip, std::string listenAddress, std::string connectAddress)
    : iRoundTrip(roundTrip),
      iListenAddress(std::move(listenAddress)),
      iConnectAddress(std::move(connectAddress)),
      iPoll(epoll_create1(EPOLL_CLOEXEC)) {}

DelayProxy::~DelayProxy() {
  for (const auto& link : iAll) drop(*link);
  for (const auto& [descriptor, port] : iListeners) close(descriptor);
  close(iPoll);
}

int DelayProxy::listenAt(int port, int target) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  switchOn(listener, SOL_SOCKET, SO_REUSEADDR);
  sockaddr_in address = addressOf(iListenAddress, port);
  socklen_t length = sizeof address;
  if (bind(listener, plain(address), length) != 0 || listen(listener, SOMAXCONN) != 0 ||
      getsockname(listener, static_cast<sockaddr*>(static_cast<void*>(&address)), &length) != 0) {
    const int reason = errno;
    close(listener);
    errno = reason;
    return -1;
  }
  iListeners[listener] = target;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = listener;
  epoll_ctl(iPoll, EPOLL_CTL_ADD, listener, &event);
  return ntohs(address.sin_port);
}

void DelayProxy::acceptFrom(int listener, int port) {
  while (true) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) return;
    switchOn(client, IPPROTO_TCP, TCP_NODELAY);
    auto link = std::make_shared<Link>();
    link->client = client;
    link->port = port;
    link->established = Clock::now() + iRoundTrip;
    iLinks[client] = link;
    iAll.push_back(std::move(link));
    epoll_event event{};
    event.data.fd = client;
    epoll_ctl(iPoll, EPOLL_CTL_ADD, client, &event);
  }
}

void DelayProxy::connectServer(Link& link) {
  link.server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const sockaddr_in address = addressOf(iConnectAddress, link.port);
  if (link.server < 0 ||
      (connect(link.server, plain(address), sizeof address) != 0 && errno != EINPROGRESS)) {
    link.isDead = true;
    return;
  }
  switchOn(link.server, IPPROTO_TCP, TCP_NODELAY);
  link.isConnecting = true;
  iLinks[link.server] = iLinks[link.client];
  epoll_event event{};
  event.data.fd = link.server;
  epoll_ctl(iPoll, EPOLL_CTL_ADD, link.server, &event);
}

// What is there is read at once, whenever it is to arrive: the kernel's buffers are not the window.
void DelayProxy::take(Link& link, int from, Direction& direction, Clock::time_point now) {
  while (!direction.hasEnded && direction.bytes < kMost) {
    Chunk chunk;
    chunk.bytes.resize(kChunk);
    const ssize_t count = recv(from, chunk.bytes.data(), chunk.bytes.size(), 0);
    if (count < 0) {
      link.isDead = link.isDead || !wouldBlock();
      return;
    }
    // Before the connection is there for the client, nothing it sent is on its way.
    const auto taken =
        std::chrono::duration<double>(static_cast<double>(std::max<ssize_t>(count, 0)) * iSecondsPerByte);
    direction.lineFree = std::max({now, link.established, direction.lineFree}) +
                         std::chrono::duration_cast<Clock::duration>(taken);
    chunk.due = direction.lineFree + iRoundTrip / 2;
    if (count == 0) {
      direction.hasEnded = true;
      direction.endDue = chunk.due;
      return;
    }
    chunk.bytes.resize(static_cast<size_t>(count));
    if (chunk.bytes.size() < kChunk / 2) chunk.bytes.shrink_to_fit();
    direction.bytes += chunk.bytes.size();
    direction.chunks.push_back(std::move(chunk));
  }
}

void DelayProxy::give(Link& link, int to, Direction& direction, Clock::time_point now) {
  while (!direction.chunks.empty() && direction.chunks.front().due <= now) {
    Chunk& chunk = direction.chunks.front();
    const ssize_t count =
        send(to, chunk.bytes.data() + chunk.sent, chunk.bytes.size() - chunk.sent, MSG_NOSIGNAL);
    if (count < 0) {
      link.isDead = link.isDead || !wouldBlock();
      return;
    }
    chunk.sent += static_cast<size_t>(count);
    direction.bytes -= static_cast<size_t>(count);
    if (chunk.sent < chunk.bytes.size()) return;
    direction.chunks.pop_front();
  }
  if (direction.chunks.empty() && direction.hasEnded && !direction.isFinished && direction.endDue <= now) {
    shutdown(to, SHUT_WR);
    direction.isFinished = true;
  }
}

void DelayProxy::step(Link& link, Clock::time_point now) {
  if (link.isDead) return;
  take(link, link.client, link.up, now);
  if (link.server < 0) {
    if (now >= link.established + iRoundTrip / 2) connectServer(link);
  } else if (!link.isConnecting) {
    take(link, link.server, link.down, now);
    give(link, link.server, link.up, now);
    give(link, link.client, link.down, now);
  }
  if (link.up.isFinished && link.down.isFinished) link.isDead = true;
  if (!link.isDead) watch(link, now);
}

void DelayProxy::watch(Link& link, Clock::time_point now) {
  const auto wants = [now](const Direction& in, const Direction& out) {
    uint32_t events = 0;
    if (!in.hasEnded && in.bytes < kMost) events |= EPOLLIN;
    if (!out.chunks.empty() && out.chunks.front().due <= now) events |= EPOLLOUT;
    return events;
  };
  change(link.client, link.clientEvents, wants(link.up, link.down));
  if (link.server >= 0) {
    change(link.server, link.serverEvents, link.isConnecting ? EPOLLOUT : wants(link.down, link.up));
  }
}

void DelayProxy::change(int descriptor, uint32_t& known, uint32_t wanted) {
  if (known == wanted) return;
  epoll_event event{};
  event.events = wanted;
  event.data.fd = descriptor;
  epoll_ctl(iPoll, EPOLL_CTL_MOD, descriptor, &event);
  known = wanted;
}

void DelayProxy::drop(Link& link) {
  for (int* descriptor : {&link.client, &link.server}) {
    if (*descriptor < 0) continue;
    iLinks.erase(*descriptor);
    close(*descriptor);
    *descriptor = -1;
  }
}

void DelayProxy::earliest(const Link& link, Clock::time_point now, Clock::time_point& next) const {
  if (link.server < 0) next = std::min(next, link.established + iRoundTrip / 2);
  for (const Direction* direction : {&link.up, &link.down}) {
    if (!direction->chunks.empty()) {
      // What is due already waits for room, of which the poll tells.
      if (direction->chunks.front().due > now) next = std::min(next, direction->chunks.front().due);
    } else if (direction->hasEnded && !direction->isFinished) {
      next = std::min(next, direction->endDue);
    }
  }
}

// False when the descriptor that everything hangs on has ended.
bool DelayProxy::dispatch(const epoll_event& event, int untilEndOf) {
  const int descriptor = event.data.fd;
  if (descriptor == untilEndOf) {
    char byte = 0;
    return read(descriptor, &byte, 1) > 0;
  }
  if (const auto listener = iListeners.find(descriptor); listener != iListeners.end()) {
    acceptFrom(descriptor, listener->second);
    return true;
  }
  const auto found = iLinks.find(descriptor);
  if (found == iLinks.end()) return true;
  Link& link = *found->second;
  if (descriptor == link.server && (event.events & EPOLLOUT) != 0) link.isConnecting = false;
  if ((event.events & EPOLLERR) != 0) link.isDead = true;
  // Would be reported without end while the rest is on its way; what there is to read is read all the same.
  if ((event.events & EPOLLHUP) != 0) epoll_ctl(iPoll, EPOLL_CTL_DEL, descriptor, nullptr);
  return true;
}

void DelayProxy::run(int untilEndOf) {
  if (untilEndOf >= 0) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = untilEndOf;
    epoll_ctl(iPoll, EPOLL_CTL_ADD, untilEndOf, &event);
  }
  std::vector<epoll_event> events(256);
  auto next = Clock::time_point::max();
  while (true) {
    timespec wait{};
    const auto left = std::clamp<Clock::duration>(next - std::min(next, Clock::now()),
                                                  Clock::duration::zero(), std::chrono::seconds(1));
    wait.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(left).count();
    wait.tv_nsec = (left % std::chrono::seconds(1)).count();
    const int count = epoll_pwait2(iPoll, events.data(), static_cast<int>(events.size()), &wait, nullptr);
    for (int i = 0; i < count; ++i) {
      if (!dispatch(events[static_cast<size_t>(i)], untilEndOf)) return;
    }
    const auto now = Clock::now();
    next = Clock::time_point::max();
    for (const auto& link : iAll) {
      step(*link, now);
      if (link->isDead) {
        drop(*link);
      } else {
        earliest(*link, now, next);
      }
    }
    std::erase_if(iAll, [](const auto& link) { return link->isDead; });
  }
}
