// A TCP proxy on loopback that makes the way to a server long: each byte arrives half a round trip after it
// was sent, in both directions. For measuring where the kernel has no netem.
//
//   delay_proxy TARGET_PORT ROUND_TRIP_MS [MBIT_PER_SECOND]
//
// Prints the port that it listens on, and runs until its standard input ends. The handshake of TCP itself is
// not delayed. Without a rate the line is as quick as the machine. What is under way is bounded as by a
// router's buffers: from there on the sender is held back.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <optional>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kPiece = 256 * 1024;
constexpr size_t kMostUnderWay = 64 * 1024 * 1024;

struct Line {
  Clock::duration delay{};
  double secondsPerByte = 0;
};

// One direction of one connection.
class Way {
 public:
  Way(int from, int to, const Line& line) : iFrom(from), iTo(to), iLine(line) {}

  bool wantsInput() const { return !iHasEnded && iUnderWay < kMostUnderWay; }
  bool wantsOutput(Clock::time_point now) const { return !iPieces.empty() && iPieces.front().due <= now; }
  std::optional<Clock::time_point> due() const {
    if (iPieces.empty()) return std::nullopt;
    return iPieces.front().due;
  }
  bool isOver() const { return iHasEnded && iPieces.empty(); }
  int from() const { return iFrom; }
  int to() const { return iTo; }

  void receive() {
    Piece piece;
    piece.bytes.resize(kPiece);
    const ssize_t count = recv(iFrom, piece.bytes.data(), piece.bytes.size(), 0);
    if (count <= 0) {
      iHasEnded = true;
      return;
    }
    piece.bytes.resize(static_cast<size_t>(count));
    piece.bytes.shrink_to_fit();
    const auto needed = std::chrono::duration<double>(static_cast<double>(count) * iLine.secondsPerByte);
    iFree = std::max(iFree, Clock::now()) + std::chrono::duration_cast<Clock::duration>(needed);
    piece.due = iFree + iLine.delay;
    iUnderWay += static_cast<size_t>(count);
    iPieces.push_back(std::move(piece));
  }

  // False when nobody is there to take it.
  bool deliver() {
    Piece& piece = iPieces.front();
    const ssize_t count = send(iTo, piece.bytes.data() + piece.sent, piece.bytes.size() - piece.sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    piece.sent += static_cast<size_t>(count);
    iUnderWay -= static_cast<size_t>(count);
    if (piece.sent == piece.bytes.size()) iPieces.pop_front();
    return true;
  }

 private:
  struct Piece {
    std::vector<char> bytes;
    size_t sent = 0;
    Clock::time_point due;
  };

  const int iFrom;
  const int iTo;
  const Line& iLine;
  std::deque<Piece> iPieces;
  size_t iUnderWay = 0;
  Clock::time_point iFree;  // when the line has taken what was given to it
  bool iHasEnded = false;
};

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

void waitForWork(Way& one, Way& other) {
  const auto now = Clock::now();
  std::optional<Clock::time_point> next;
  pollfd fds[2] = {{one.from(), 0, 0}, {other.from(), 0, 0}};
  for (Way* way : {&one, &other}) {
    pollfd& input = way == &one ? fds[0] : fds[1];
    pollfd& output = way == &one ? fds[1] : fds[0];
    if (way->wantsInput()) input.events |= POLLIN;
    if (way->wantsOutput(now)) {
      output.events |= POLLOUT;
    } else if (const auto due = way->due()) {
      next = std::min(next.value_or(*due), *due);
    }
  }
  // A side that has ended and waits for nothing would be reported again and again.
  for (pollfd& fd : fds) {
    if (fd.events == 0) fd.fd = -1;
  }
  timespec wait{};
  if (next) {
    const auto left = std::max(*next - now, Clock::duration::zero());
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    wait = {nanoseconds / 1000000000, nanoseconds % 1000000000};
  }
  ppoll(fds, 2, next ? &wait : nullptr, nullptr);
  if (fds[0].fd >= 0 && (fds[0].revents & ~POLLOUT) != 0 && one.wantsInput()) one.receive();
  if (fds[1].fd >= 0 && (fds[1].revents & ~POLLOUT) != 0 && other.wantsInput()) other.receive();
}

void serve(int client, int target, const Line& line) {
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  const sockaddr_in address = loopback(target);
  if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    Way up(client, server, line);
    Way down(server, client, line);
    bool stands = true;
    while (stands && !up.isOver() && !down.isOver()) {
      waitForWork(up, down);
      const auto now = Clock::now();
      for (Way* way : {&up, &down}) {
        if (stands && way->wantsOutput(now)) stands = way->deliver();
      }
    }
  }
  close(server);
  close(client);
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) {
    std::fprintf(stderr, "usage: delay_proxy TARGET_PORT ROUND_TRIP_MS [MBIT_PER_SECOND]\n");
    return 2;
  }
  const int target = std::atoi(arguments[1]);
  static Line line;
  const std::chrono::duration<double, std::milli> oneWay(std::atof(arguments[2]) / 2);
  line.delay = std::chrono::duration_cast<Clock::duration>(oneWay);
  if (count > 3) line.secondsPerByte = 8.0 / (std::atof(arguments[3]) * 1e6);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof(address);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 64) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("delay_proxy: cannot listen on loopback");
    return 1;
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  while (true) {
    pollfd fds[2] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    poll(fds, 2, -1);
    char byte = 0;
    if (fds[1].revents != 0 && read(STDIN_FILENO, &byte, 1) <= 0) return 0;
    if (fds[0].revents == 0) continue;
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    // Detached: the connections end with the process.
    if (client >= 0) std::thread(serve, client, target, std::cref(line)).detach();
  }
}
