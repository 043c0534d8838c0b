// The file protocol over the standard input and output of a local program.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "remote/net/WakeUp.h"
#include "remote/sftp/SFTPTransport.h"

namespace ombra {

// Bytes over one end of a socket pair; the other end belongs to a child process, or to a test.
class PipeTransport final : public SFTPTransport {
 public:
  // Will start `program` (an sftp-server) in the user's home folder when it is opened.
  explicit PipeTransport(std::string program);
  // Takes over one end of a connected stream socket; nothing is started.
  explicit PipeTransport(int socket);
  // Closes the socket and ends the child.
  ~PipeTransport() override;
  PipeTransport(const PipeTransport&) = delete;
  PipeTransport& operator=(const PipeTransport&) = delete;

  [[nodiscard]] bool open(NSErrorRef* error) override;
  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds limit,
                                    Receiver& receiver, NSErrorRef* error) override;
  bool canChangeThreads() const override { return true; }
  void interrupt() override;

 private:
  bool start(NSErrorRef* error);
  bool sendSome(std::span<const std::byte> outgoing, Exchanged* exchanged);
  bool receiveSome(Receiver& receiver, Exchanged* exchanged);

  const std::string iProgram;
  int iSocket = -1;
  WakeUp iWakeUp;
  pid_t iChild = -1;
  std::vector<std::byte> iBuffer;
};

}  // namespace ombra
