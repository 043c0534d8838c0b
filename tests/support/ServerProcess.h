// A server program as a child of the test program.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ombra {

// Runs in the foreground, and ends with the object, or with the thread that started it.
class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Starts the program and waits, for a bounded time, until its output holds `ready` or, where that is empty,
  // until somebody listens on the port. False with `log` telling why.
  bool start(const std::vector<std::string>& command, const std::string& ready, int port);
  // Ends it. What it started itself may go on, and go on writing, until the next start.
  void stop();
  bool isRunning() const { return iProcess > 0; }
  pid_t process() const { return iProcess; }
  // What it wrote while it started, and was waited for.
  const std::string& log() const { return iLog; }
  // Reads what it writes, for a bounded time, until `log` holds `text`.
  bool waitForOutput(const std::string& text);

  // A port of 127.0.0.1 that nobody is given but who asks for its number, as servers do: until one listens
  // there, connecting is refused. For as long as this program runs.
  static int freePort();
  // The path of a program, looked for where server programs lie; empty when it is not installed.
  static std::string findProgram(const std::string& name);

 private:
  bool waitForPort(int port);
  void closeOutput();

  pid_t iProcess = -1;
  int iOutput = -1;
  std::string iLog;
};

}  // namespace ombra
