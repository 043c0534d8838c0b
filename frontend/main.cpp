#include <csignal>
#include <cstdio>

#include "frontend/ArgumentSecrets.h"
#include "frontend/CommandLine.h"
#include "platform/foundation/NSProcessInfo.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments = ombra::takeArguments(argc, argv);
  if (arguments.empty()) arguments.emplace_back("ombra");
  // Only the name: the command's own options are no settings.
  ombra::NSProcessInfo::setArguments(1, argv);
  signal(SIGPIPE, SIG_IGN);
  try {
    return ombra::runCommandLine(std::move(arguments));
  } catch (const std::exception& error) {
    fprintf(stderr, "ombra: Something went wrong inside the command: %s\n", error.what());
    return 1;
  }
}
