// What the system shows of a helper that does not answer.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace ombra {

struct HelperTraces {
  std::string nameArgument;  // of "--name=" on its command line; empty when it has none
  // The number of its mount; 0 when there is none, or the kernel (before 6.11) hides it.
  unsigned fuseConnection = 0;
};

HelperTraces tracesOfHelper(pid_t pid);

// The parts of it, from the texts of /proc: a command line (arguments ended by NUL), and a descriptor's
// facts.
std::string nameInCommandLine(std::string_view commandLine);
unsigned connectionInDescriptorFacts(std::string_view facts);

}  // namespace ombra
