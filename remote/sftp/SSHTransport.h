// The file protocol over SSH.
#pragma once

#include <memory>

#include "platform/foundation/Mutex.h"
#include "remote/Session.h"
#include "remote/sftp/SFTPTransport.h"

namespace ombra {

// The "sftp" subsystem of a server reached with libssh. All of libssh's calls are non-blocking; waiting
// happens here, so that limits and `interrupt` hold everywhere.
class SSHTransport final : public SFTPTransport {
 public:
  explicit SSHTransport(const SessionEnvironment& environment);
  ~SSHTransport() override;

  [[nodiscard]] bool open(NSErrorRef* error) override;
  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds limit,
                                    Receiver& receiver, NSErrorRef* error) override;
  bool canChangeThreads() const override { return true; }
  void interrupt() override;

 private:
  class Connection;
  const std::unique_ptr<Connection> iConnection;
};

}  // namespace ombra
