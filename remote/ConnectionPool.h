// The library's own pool.
#pragma once

#include "remote/KCConnectionPool.h"
#include "remote/PooledConnection.h"

namespace ombra {

// A pool over the sessions of one engine. KCConnectionPool::initWithCredentials makes it with the registered
// one.
class ConnectionPool final : public KCConnectionPool {
 public:
  ConnectionPool(std::shared_ptr<KCCredentials> credentials, std::shared_ptr<Engine> engine);

  std::shared_ptr<KCCredentials> credentials() const override { return iCredentials; }
  void setMaximumConnections(int maximum) override { iCore->sessions.setMaximumSessions(maximum); }
  std::shared_ptr<AbstractConnection> acquireConnection() override;
  std::shared_ptr<AbstractConnection> acquireConnectionWithTimeout(
      double timeout, const CancellationToken* cancellation) override;
  void releaseConnection(std::shared_ptr<AbstractConnection> connection) override;
  void setTranscriptDelegate(TranscriptDelegate* delegate) override;
  void shutDown() override { iCore->shutDown(); }

  // For tests: the sessions behind the connections.
  SessionPool& sessions() { return iCore->sessions; }

 private:
  const std::shared_ptr<KCCredentials> iCredentials;
  const std::shared_ptr<PoolCore> iCore;
};

}  // namespace ombra
