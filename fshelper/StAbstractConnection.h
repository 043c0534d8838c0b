// The scoped holder of a pooled connection.
#pragma once

#include <memory>

#include "remote/AbstractConnection.h"
#include "remote/KCConnectionPool.h"

namespace ombra {

// Takes a connection from the pool on first use and gives it back when the scope ends, also by an exception.
// Used on one thread, on its stack.
class StAbstractConnection {
 public:
  // Neither is owned; both must outlive the holder. A missing pool only fails a condition check. `delegate`
  // may be null.
  StAbstractConnection(KCConnectionPool* pool, ConnectionDelegate* delegate);
  ~StAbstractConnection();
  StAbstractConnection(const StAbstractConnection&) = delete;
  StAbstractConnection& operator=(const StAbstractConnection&) = delete;

  // The connection, taken now if this is the first use. Null, after a failed condition check, when there is
  // none.
  AbstractConnection* connection();
  // The same where null would be no use: a connection that fails every call stands in for a missing one.
  AbstractConnection* operator->();
  AbstractConnection& operator*();

  // The connection that the outermost holder of this thread has taken; null when none has.
  static AbstractConnection* currentConnection();

 private:
  KCConnectionPool* const iPool;
  std::shared_ptr<AbstractConnection> iConnection;
  ConnectionDelegate* const iDelegate;
};

}  // namespace ombra
