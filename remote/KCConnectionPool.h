// Connections to one server.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "remote/AbstractConnection.h"
#include "remote/KCCredentials.h"

namespace ombra {

// An object that a waiting acquisition looks at: once cancelled, it gives up.
class CancellationToken {
 public:
  void cancel() { iCancelled.store(true); }
  bool isCancelled() const { return iCancelled.load(); }

 private:
  std::atomic<bool> iCancelled{false};
};

// Hands out logical connections and takes them back. A logical connection costs nothing until its first
// remote call, which attaches a session; release gives the session back to the idle ones. Only sessions are
// capped. Thread-safe. Abstract, so that a test can hand out scripted connections.
class KCConnectionPool {
 public:
  virtual ~KCConnectionPool() = default;

  // The library's pool for one server: sessions of the engine that is registered for the credentials'
  // protocol. Null, with the error filled, when there is no such engine.
  static std::shared_ptr<KCConnectionPool> initWithCredentials(std::shared_ptr<KCCredentials> credentials,
                                                               NSErrorRef* error = nullptr);

  virtual std::shared_ptr<KCCredentials> credentials() const = 0;
  // The largest number of sessions; 0 = the library's own cap for the protocol.
  virtual void setMaximumConnections(int maximum) = 0;
  // A connection, however long it takes; null only after `shutDown`.
  virtual std::shared_ptr<AbstractConnection> acquireConnection() = 0;
  // A connection or null: when cancelled (token may be null), after shutDown, or, from a pool whose
  // connections have to be waited for, after `timeout` seconds.
  virtual std::shared_ptr<AbstractConnection> acquireConnectionWithTimeout(
      double timeout, const CancellationToken* cancellation) = 0;
  // Takes back an acquired connection; each exactly once. Null is ignored.
  virtual void releaseConnection(std::shared_ptr<AbstractConnection> connection) = 0;
  // Receives the transcript of all sessions; not owned, may be null.
  virtual void setTranscriptDelegate(TranscriptDelegate* delegate) = 0;
  // Ends everything: running calls fail soon, sessions are closed, later calls fail. For unmount.
  virtual void shutDown() = 0;
};

}  // namespace ombra
