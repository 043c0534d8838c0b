// The port that a server of a test is started on.
#include "tests/support/ServerProcess.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/Loopback.h"

namespace ombra {
namespace {

class FreePort : public testing::Test {
 protected:
  FreePort() : iSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~FreePort() override { close(iSocket); }
  // 0, or why not.
  int bindTo(int port) {
    const sockaddr_in address = loopbackAddress(port);
    return bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
  }
  static int connectTo(int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(port);
    const int result = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int reason = result == 0 ? 0 : errno;
    close(socket);
    return reason;
  }
  const int iSocket;
};

TEST_F(FreePort, IsKeptFromThoseWhoDoNotShareIt) {
  const int port = ServerProcess::freePort();
  ASSERT_GT(port, 0);
  EXPECT_EQ(bindTo(port), EADDRINUSE);
}

TEST_F(FreePort, RefusesUntilAServerListensThere) {
  const int port = ServerProcess::freePort();
  EXPECT_EQ(connectTo(port), ECONNREFUSED);
  const int one = 1;
  ASSERT_EQ(setsockopt(iSocket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
  EXPECT_EQ(bindTo(port), 0);
  ASSERT_EQ(listen(iSocket, 1), 0);
  EXPECT_EQ(connectTo(port), 0);
}

}  // namespace
}  // namespace ombra
