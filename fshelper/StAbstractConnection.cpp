#include "fshelper/StAbstractConnection.h"

#include <pthread.h>

#include <atomic>
#include <utility>

#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnectionMissing.h"
#include "platform/foundation/Mutex.h"

namespace ombra {
namespace {

// The slot that holds a thread's current connection. Made by the first holder of the process and kept to its
// end: the key has no destructor function, since the slot owns nothing.
pthread_key_t currentConnectionKey() {
  static std::atomic<bool> sKeyExists{false};
  static pthread_key_t sCurrentKey;
  static Mutex sMutex;
  if (!sKeyExists.load(std::memory_order_acquire)) {
    const MutexLock lock(sMutex);
    if (!sKeyExists.load(std::memory_order_relaxed)) {
      const int failure = pthread_key_create(&sCurrentKey, nullptr);
      if (failure != 0) OFS_RAISE("currentConnectionKey()", "pthread_key_create failed, errno = {}", failure);
      sKeyExists.store(true, std::memory_order_release);
    }
  }
  return sCurrentKey;
}

}  // namespace

StAbstractConnection::StAbstractConnection(KCConnectionPool* pool, ConnectionDelegate* delegate)
    : iPool(pool), iDelegate(delegate) {
  OFS_CONDITION(pool != nullptr, "no connection pool");
  currentConnectionKey();
}

StAbstractConnection::~StAbstractConnection() {
  if (iConnection == nullptr) return;
  iConnection->setDelegate(nullptr);
  iPool->releaseConnection(std::move(iConnection));
  // Also when it was an outer holder of this thread that filled the slot: intended.
  const pthread_key_t key = currentConnectionKey();
  if (pthread_getspecific(key) != nullptr) pthread_setspecific(key, nullptr);
}

AbstractConnection* StAbstractConnection::connection() {
  if (iConnection != nullptr) return iConnection.get();
  if (iPool != nullptr) iConnection = iPool->acquireConnection();
  if (iConnection == nullptr) {
    ofs_conditionFailed("no connection");
    return nullptr;
  }
  iConnection->setDelegate(iDelegate);
  const pthread_key_t key = currentConnectionKey();
  if (pthread_getspecific(key) == nullptr) pthread_setspecific(key, iConnection.get());
  return iConnection.get();
}

AbstractConnection& StAbstractConnection::operator*() {
  AbstractConnection* taken = connection();
  return taken != nullptr ? *taken : missingConnection();
}

AbstractConnection* StAbstractConnection::operator->() { return &**this; }

AbstractConnection* StAbstractConnection::currentConnection() {
  return static_cast<AbstractConnection*>(pthread_getspecific(currentConnectionKey()));
}

}  // namespace ombra
