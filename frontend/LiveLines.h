// Lines at the end of a terminal that are drawn over and over.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace ombra {

struct TerminalSize {
  size_t columns = 80;
  size_t rows = 24;
};

// The size of the terminal behind `stream`; the usual one where there is none.
TerminalSize terminalSize(FILE* stream);

// Draws a block of lines in place of the one before. Lines that are too wide or too many are cut, since a
// block that moves the screen on could not be taken back. Nothing at all when `stream` is no terminal.
class LiveLines {
 public:
  LiveLines(FILE* stream, bool enabled);
  // The last block stays on the screen unless it was cleared.
  ~LiveLines();
  LiveLines(const LiveLines&) = delete;
  LiveLines& operator=(const LiveLines&) = delete;

  bool enabled() const { return iEnabled; }
  void show(const std::vector<std::string>& lines);
  void clear();

 private:
  void goBack() const;

  FILE* iStream;
  bool iEnabled;
  size_t iShown = 0;
};

}  // namespace ombra
