#pragma once

#include <cstdio>
#include <cstdlib>

namespace ombra {

// What is measured must also be right: a benchmark of a parser that refuses its input would be a fast one.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "benchmark: %s\n", what);
  std::abort();
}

}  // namespace ombra
