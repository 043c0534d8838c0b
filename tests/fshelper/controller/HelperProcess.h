// The real helper as a child process.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {

// Started with an environment of its own below one folder; killed, with its mount, at the end at the latest.
class HelperProcess {
 public:
  // `busAddress` empty: no session bus. Volumes are mounted below FOLDER/Volumes.
  HelperProcess(const std::string& folder, const std::string& busAddress,
                const std::vector<std::string>& arguments);
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  pid_t process() const { return iProcess; }
  std::string busName() const { return "org.ombrafs.helper.pid" + std::to_string(iProcess); }
  void signal(int number) const;
  // Waits for the end, 60 seconds at most: "exit 0", "signal 9", or "still running".
  std::string end();

 private:
  pid_t iProcess = -1;
  std::string iEnd;
};

}  // namespace ombra
