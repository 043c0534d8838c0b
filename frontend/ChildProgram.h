// Other programs, run to their end.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ombra {

struct ProgramResult {
  int exitStatus = -1;  // the exit status, or 128 plus the signal that ended it
  std::string output;   // what it wrote to standard output and standard error, at most 16 KiB
};

// Runs a program, found by PATH, with these arguments (the program's name first), no shell, standard input
// empty. Absent when it cannot be started or does not end within `limit` (it is killed then).
std::optional<ProgramResult> runProgram(const std::vector<std::string>& arguments,
                                        std::chrono::milliseconds limit);

// The argument list as the system's calls take it; valid as long as `arguments`.
std::vector<char*> argumentPointers(const std::vector<std::string>& arguments);

}  // namespace ombra
