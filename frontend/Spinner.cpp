#include "frontend/Spinner.h"

#include <fmt/format.h>
#include <unistd.h>

#include "frontend/Failure.h"

namespace ombra {

namespace {

constexpr unsigned kQuietTicks = 3;  // what is done in no time needs no sign

}  // namespace

Spinner::Spinner(FILE* stream, bool enabled)
    : iStream(stream), iEnabled(enabled && isatty(fileno(stream)) == 1) {}

Spinner::~Spinner() { clear(); }

void Spinner::setText(std::string text) {
  clear();
  iText = printable(text, 70);
}

void Spinner::tick() {
  if (!iEnabled || ++iTicks < kQuietTicks) return;
  fmt::print(iStream, "\r{} {}", "|/-\\"[iTicks % 4], iText);
  fflush(iStream);
  iShown = true;
}

void Spinner::clear() {
  iTicks = 0;
  if (!iShown) return;
  fmt::print(iStream, "\r{}\r", std::string(iText.size() + 2, ' '));
  fflush(iStream);
  iShown = false;
}

}  // namespace ombra
