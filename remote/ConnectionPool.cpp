#include "remote/ConnectionPool.h"

#include <cassert>

#include "remote/QuarnKitError.h"

namespace ombra {

std::shared_ptr<KCConnectionPool> KCConnectionPool::initWithCredentials(
    std::shared_ptr<KCCredentials> credentials, NSErrorRef* error) {
  std::shared_ptr<Engine> engine =
      credentials != nullptr ? EngineRegistry::engineForCredentials(*credentials) : nullptr;
  if (engine == nullptr) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported,
                                                   "this program does not speak the protocol"));
    return nullptr;
  }
  return std::make_shared<ConnectionPool>(std::move(credentials), std::move(engine));
}

ConnectionPool::ConnectionPool(std::shared_ptr<KCCredentials> credentials, std::shared_ptr<Engine> engine)
    : iCredentials(std::move(credentials)),
      iCore(std::make_shared<PoolCore>(std::move(engine), iCredentials)) {}

std::shared_ptr<AbstractConnection> ConnectionPool::acquireConnection() {
  if (iCore->sessions.isShutDown()) return nullptr;
  return std::make_shared<PooledConnection>(iCore);
}

std::shared_ptr<AbstractConnection> ConnectionPool::acquireConnectionWithTimeout(
    double /*timeout*/, const CancellationToken* cancellation) {
  // A logical connection is there at once; waiting begins with its first call.
  if (cancellation != nullptr && cancellation->isCancelled()) return nullptr;
  return acquireConnection();
}

void ConnectionPool::releaseConnection(std::shared_ptr<AbstractConnection> connection) {
  if (connection == nullptr) return;
  auto* pooled = dynamic_cast<PooledConnection*>(connection.get());
  assert(pooled != nullptr && pooled->core() == iCore.get() && "a connection of another pool");
  if (pooled == nullptr || pooled->core() != iCore.get()) return;
  assert(!pooled->isReleased() && "released twice");
  pooled->release();
}

void ConnectionPool::setTranscriptDelegate(TranscriptDelegate* delegate) {
  iCore->sessions.transcript().setDelegate(delegate);
}

}  // namespace ombra
