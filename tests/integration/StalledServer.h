// A server that is there but says nothing.
#pragma once

#include <string>

#include "tests/integration/Shell.h"
#include "tests/support/SshdFixture.h"

namespace ombra {

// Stops, and at its end continues, the server and the processes that serve its connections.
class StalledServer {
 public:
  explicit StalledServer(const SshdFixture& server) {
    const std::string daemon = "$(pgrep -f " + shellWord("sshd.*" + server.folder()) + ")";
    iProcesses =
        shell(
            "all=" + daemon +
            "; for round in 1 2 3 4; do for p in $all; do all=\"$all $(pgrep -P $p)\"; done; done; echo $all")
            .output;
    shell("kill -STOP $(echo " + shellWord(iProcesses) + ")");
  }
  ~StalledServer() { shell("kill -CONT $(echo " + shellWord(iProcesses) + ")"); }
  StalledServer(const StalledServer&) = delete;
  StalledServer& operator=(const StalledServer&) = delete;

 private:
  std::string iProcesses;
};

}  // namespace ombra
