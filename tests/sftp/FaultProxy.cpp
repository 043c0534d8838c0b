#include "tests/sftp/FaultProxy.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/support/Loopback.h"

namespace ombra::test {

FaultProxy::FaultProxy(int target) : iTarget(target) {
  iListener = listenOnLoopback(&iPort);
  iThread = std::thread([this] { run(); });
}

FaultProxy::~FaultProxy() {
  iEnd.raise();
  iThread.join();
  close(iListener);
}

void FaultProxy::run() {
  while (true) {
    pollfd fds[2] = {{iListener, POLLIN, 0}, {iEnd.descriptor(), POLLIN, 0}};
    poll(fds, 2, -1);
    if (fds[1].revents != 0) return;
    const int client = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    serve(client);
    close(client);
  }
}

void FaultProxy::serve(int client) {
  if (const char* greeting = iGreeting.load()) {
    [[maybe_unused]] const ssize_t sent = send(client, greeting, std::strlen(greeting), MSG_NOSIGNAL);
    return;
  }
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  const sockaddr_in address = loopbackAddress(iTarget);
  bool stands = connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  while (stands) {
    const bool stalls = iArrived.load() >= iStallAfter.load();
    const auto events = static_cast<short>(stalls ? 0 : POLLIN);
    pollfd fds[3] = {{client, events, 0}, {server, events, 0}, {iEnd.descriptor(), POLLIN, 0}};
    poll(fds, 3, -1);
    if (fds[2].revents != 0) break;
    if (fds[0].revents != 0) stands = pass(client, server, false);
    if (stands && fds[1].revents != 0) stands = pass(server, client, true);
    if (iArrived.load() >= iCutAfter.load()) break;
  }
  close(server);
}

bool FaultProxy::pass(int from, int to, bool fromServer) {
  std::vector<char> buffer(std::min<size_t>(iPiece.load(), 64 * 1024));
  const ssize_t count = recv(from, buffer.data(), buffer.size(), 0);
  if (count <= 0) return false;
  if (fromServer) iArrived.fetch_add(static_cast<uint64_t>(count));
  return send(to, buffer.data(), static_cast<size_t>(count), MSG_NOSIGNAL) == count;
}

}  // namespace ombra::test
