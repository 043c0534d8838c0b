// A sign of life for whoever waits at a terminal.
#pragma once

#include <cstdio>
#include <string>

namespace ombra {

// Shows `text` with a turning mark while `tick` is called, from the third tick on, and nothing at all when
// `stream` is no terminal. The line is wiped by `clear` and at the end.
class Spinner {
 public:
  Spinner(FILE* stream, bool enabled);
  ~Spinner();
  Spinner(const Spinner&) = delete;
  Spinner& operator=(const Spinner&) = delete;

  void setText(std::string text);
  void tick();
  void clear();

 private:
  FILE* iStream;
  bool iEnabled;
  std::string iText;
  unsigned iTicks = 0;
  bool iShown = false;
};

}  // namespace ombra
