#include "frontend/LiveLines.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace ombra {

TerminalSize terminalSize(FILE* stream) {
  winsize window{};
  if (ioctl(fileno(stream), TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) return {};
  return {window.ws_col, window.ws_row};
}

LiveLines::LiveLines(FILE* stream, bool enabled)
    : iStream(stream), iEnabled(enabled && isatty(fileno(stream)) == 1) {}

LiveLines::~LiveLines() = default;

void LiveLines::goBack() const {
  if (iShown > 0) fmt::print(iStream, "\033[{}A\r", iShown);
}

// The terminal itself cuts what is too wide: it alone knows how wide a character is.
void LiveLines::show(const std::vector<std::string>& lines) {
  if (!iEnabled) return;
  goBack();
  fmt::print(iStream, "\033[?7l");
  const size_t rows = terminalSize(iStream).rows;
  const size_t count = std::min(lines.size(), rows > 1 ? rows - 1 : 1);
  for (size_t i = 0; i < count; ++i) fmt::print(iStream, "{}\033[K\n", lines[i]);
  fmt::print(iStream, "\033[?7h\033[J");
  fflush(iStream);
  iShown = count;
}

void LiveLines::clear() {
  if (!iEnabled || iShown == 0) return;
  goBack();
  fmt::print(iStream, "\033[J");
  fflush(iStream);
  iShown = 0;
}

}  // namespace ombra
