#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

// A TCP proxy that makes the way longer and nothing else: each byte arrives half a round trip after it was
// sent, and a connection is there one round trip after it was asked for. Bytes under way do not wait for one
// another, so that the rate is that of the loopback for whoever keeps enough of them in flight. One thread
// serves everything.
class DelayProxy {
 public:
  using Clock = std::chrono::steady_clock;

  DelayProxy(Clock::duration roundTrip, std::string listenAddress, std::string connectAddress);
  ~DelayProxy();
  DelayProxy(const DelayProxy&) = delete;
  DelayProxy& operator=(const DelayProxy&) = delete;

  // What each direction of a connection carries at most; without it as much as the machine can.
  void setBytesPerSecond(double rate) { iSecondsPerByte = 1 / rate; }
  // Leads a port to one of the other address; 0 = any free one. The port that is listened at, or -1 with the
  // reason in errno.
  int listenAt(int port, int target);
  // Serves until a descriptor has ended; -1 = until the process is ended.
  void run(int untilEndOf);

 private:
  struct Chunk {
    Clock::time_point due;
    std::vector<char> bytes;
    size_t sent = 0;
  };
  // What goes one way: read from one socket, written to the other.
  struct Direction {
    std::deque<Chunk> chunks;
    size_t bytes = 0;
    bool hasEnded = false;    // the sender has shut down; the receiver is told when everything has arrived
    bool isFinished = false;  // it was told
    Clock::time_point endDue;
    Clock::time_point lineFree;  // when the line has taken what was given to it
  };
  struct Link {
    int client = -1, server = -1;
    int port = 0;
    Clock::time_point established;  // for the client; the server sees it half a round trip later
    bool isConnecting = false;
    Direction up, down;
    uint32_t clientEvents = 0, serverEvents = 0;
    bool isDead = false;
  };

  void acceptFrom(int listener, int port);
  void step(Link& link, Clock::time_point now);
  void connectServer(Link& link);
  void take(Link& link, int from, Direction& direction, Clock::time_point now);
  static void give(Link& link, int to, Direction& direction, Clock::time_point now);
  void watch(Link& link, Clock::time_point now);
  void change(int descriptor, uint32_t& known, uint32_t wanted);
  void drop(Link& link);
  bool dispatch(const epoll_event& event, int untilEndOf);
  void earliest(const Link& link, Clock::time_point now, Clock::time_point& next) const;

  const Clock::duration iRoundTrip;
  const std::string iListenAddress, iConnectAddress;
  double iSecondsPerByte = 0;
  int iPoll;
  std::unordered_map<int, int> iListeners;                // descriptor -> port that it leads to
  std::unordered_map<int, std::shared_ptr<Link>> iLinks;  // by either descriptor
  std::vector<std::shared_ptr<Link>> iAll;
};
