// A way to the servers of bench/compare that takes a given time.
//
//   delay_proxy --delay MS --listen ADDRESS --connect ADDRESS PORT[-PORT]...
//   delay_proxy TARGET_PORT MS [MBIT_PER_SECOND]
//
// MS is the round trip. In the first form each port is listened at and led to the same port of the other
// address, until the process is ended. The second form leads a free port of loopback, which it prints, to
// another one, until its standard input ends.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/delay/DelayProxy.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: delay_proxy --delay MS --listen ADDRESS --connect ADDRESS PORT[-PORT]...\n"
               "       delay_proxy TARGET_PORT MS [MBIT_PER_SECOND]\n");
  return 2;
}

bool listenAtAll(DelayProxy& proxy, const std::string& range) {
  char* end = nullptr;
  const long first = std::strtol(range.c_str(), &end, 10);
  const long last = *end == '-' ? std::strtol(end + 1, &end, 10) : first;
  if (*end != 0 || first < 1 || last < first || last > 65535) {
    std::fprintf(stderr, "delay_proxy: %s is no port\n", range.c_str());
    return false;
  }
  for (long port = first; port <= last; ++port) {
    if (proxy.listenAt(static_cast<int>(port), static_cast<int>(port)) >= 0) continue;
    std::fprintf(stderr, "delay_proxy: port %ld: %s\n", port, std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  const bool isOnePort = count >= 3 && arguments[1][0] != '-';
  if (!isOnePort && (count < 8 || std::string(arguments[1]) != "--delay" ||
                     std::string(arguments[3]) != "--listen" || std::string(arguments[5]) != "--connect")) {
    return usage();
  }
  const auto delay = std::chrono::microseconds(std::lround(std::atof(arguments[2]) * 1000));
  if (!isOnePort) {
    DelayProxy proxy(delay, arguments[4], arguments[6]);
    for (int i = 7; i < count; ++i) {
      if (!listenAtAll(proxy, arguments[i])) return 1;
    }
    proxy.run(-1);
    return 0;
  }
  DelayProxy proxy(delay, "127.0.0.1", "127.0.0.1");
  if (count > 3) proxy.setBytesPerSecond(std::atof(arguments[3]) * 1e6 / 8);
  const int port = proxy.listenAt(0, std::atoi(arguments[1]));
  if (port < 0) {
    std::perror("delay_proxy: cannot listen on loopback");
    return 1;
  }
  std::printf("%d\n", port);
  std::fflush(stdout);
  proxy.run(STDIN_FILENO);
  return 0;
}
