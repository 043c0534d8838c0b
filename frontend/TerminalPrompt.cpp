#include "frontend/TerminalPrompt.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>

#include <array>
#include <cerrno>

#include "platform/foundation/NSUnarchiver.h"

namespace ombra {

namespace {

constexpr size_t kMaximumAnswer = 1024;

// Keeps what is typed off the screen for a scope.
class WithoutEcho {
 public:
  explicit WithoutEcho(int terminal) : iTerminal(terminal) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    // A stop in here would leave the shell a terminal without echo.
    sigprocmask(SIG_BLOCK, &stop, &iMask);
    iChanged = tcgetattr(terminal, &iBefore) == 0;
    if (!iChanged) return;
    termios quiet = iBefore;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
    quiet.c_lflag |= ICANON;
    iChanged = tcsetattr(terminal, TCSAFLUSH, &quiet) == 0;
  }
  ~WithoutEcho() {
    if (iChanged) tcsetattr(iTerminal, TCSAFLUSH, &iBefore);
    sigprocmask(SIG_SETMASK, &iMask, nullptr);
  }
  WithoutEcho(const WithoutEcho&) = delete;
  WithoutEcho& operator=(const WithoutEcho&) = delete;

  bool inForce() const { return iChanged; }

 private:
  int iTerminal;
  termios iBefore{};
  sigset_t iMask{};
  bool iChanged = false;
};

}  // namespace

std::unique_ptr<TerminalPrompt> TerminalPrompt::open(const Interruption& interruption) {
  UniqueFd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal) return nullptr;
  return std::make_unique<TerminalPrompt>(std::move(terminal), interruption);
}

TerminalPrompt::TerminalPrompt(UniqueFd terminal, const Interruption& interruption)
    : iTerminal(std::move(terminal)), iInterruption(interruption) {}

std::optional<std::string> TerminalPrompt::line(std::string_view question) {
  show(question);
  return readLine();
}

std::optional<std::string> TerminalPrompt::secret(std::string_view question) {
  std::optional<std::string> answer;
  {
    const WithoutEcho quiet(iTerminal.get());
    if (!quiet.inForce()) return std::nullopt;  // rather no answer than one that everybody can read
    show(question);
    answer = readLine();
  }
  show("\n");
  return answer;
}

std::optional<std::string> TerminalPrompt::readLine() {
  std::string answer;
  // One allocation, so that no half-grown copies of a secret stay behind.
  answer.reserve(kMaximumAnswer + 1);
  while (!iInterruption.requested()) {
    std::array<pollfd, 2> waiting{{{iTerminal.get(), POLLIN, 0}, {iInterruption.fd(), POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) break;
    if (iInterruption.requested() || waiting[0].revents == 0) continue;
    char c = 0;
    const ssize_t count = read(iTerminal.get(), &c, 1);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) break;
    if (c == '\n') return answer;
    if (answer.size() == kMaximumAnswer) break;
    answer += c;
  }
  wipe(answer);
  return std::nullopt;
}

void TerminalPrompt::show(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(iTerminal.get(), text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    text.remove_prefix(static_cast<size_t>(count));
  }
}

}  // namespace ombra
