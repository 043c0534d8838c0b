// Facts about this process and machine.
#pragma once

#include <string>
#include <vector>

namespace ombra {

class NSProcessInfo {
 public:
  // The arguments that the program was started with, the program path first. Set once by the entry point.
  static const std::vector<std::string>& arguments();
  static void setArguments(int argc, const char* const* argv);
  // The program's file name without its folder.
  static std::string processName();
  static std::string operatingSystemVersionString();  // e.g. "Debian GNU/Linux 12 (bookworm)"
  static std::string kc_architectureString();         // e.g. "x86_64"
  // The path of the running executable; empty when the system does not tell.
  static std::string executablePath();
};

}  // namespace ombra
