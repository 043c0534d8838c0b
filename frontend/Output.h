// Where results and messages of the command go.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "frontend/Failure.h"

namespace ombra {

// Results go to `out`, everything said to a person to `err`. With `json` a result is one JSON object on one
// line.
struct Output {
  FILE* out = stdout;
  FILE* err = stderr;
  bool json = false;

  // One line of result.
  void result(std::string_view line) const;
  // A remark for a person: left out when nobody is at a terminal, and with `json`.
  void remark(std::string_view line) const;
  // Said in every case.
  void warning(std::string_view line) const;
  // Tells the failure and answers its code. With `json` also {"error": {…}} as the result.
  int fail(const Failure& failure) const;
};

}  // namespace ombra
