// A program started by a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ombra {

// Runs a program with its output and error output in one pipe. Ended and collected when it goes out of scope.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Reads output up to a line that holds `text`; what was read. Empty when the program ended without it.
  std::string waitForLine(const std::string& text);
  // Everything up to the end of the output.
  std::string readToEnd();
  // Waits for the end; the exit status.
  int wait();
  pid_t pid() const { return iPid; }

 private:
  pid_t iPid = -1;
  int iOutput = -1;
};

// Runs a program to its end; true for exit status 0. `output`: what it wrote.
bool runProgram(const std::vector<std::string>& arguments, std::string* output = nullptr);

}  // namespace ombra
