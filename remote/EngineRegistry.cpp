#include <map>
#include <new>

#include "platform/foundation/Mutex.h"
#include "remote/Session.h"

namespace ombra {
namespace {

class Registry {
 public:
  void set(uint32_t protocol, EngineRegistry::Factory factory) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    iFactories[protocol] = factory;
  }

  EngineRegistry::Factory get(uint32_t protocol) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    const auto found = iFactories.find(protocol);
    return found != iFactories.end() ? found->second : nullptr;
  }

 private:
  Mutex iLock;
  std::map<uint32_t, EngineRegistry::Factory> iFactories GUARDED_BY(iLock);
};

Registry& registry() {
  // Never destroyed: workers may still ask while the process exits.
  alignas(Registry) static unsigned char sStorage[sizeof(Registry)];
  static Registry* sRegistry = ::new (static_cast<void*>(sStorage)) Registry;
  return *sRegistry;
}

}  // namespace

void EngineRegistry::registerEngine(uint32_t protocol, Factory factory) { registry().set(protocol, factory); }

std::shared_ptr<Engine> EngineRegistry::engineForCredentials(const KCCredentials& credentials) {
  const Factory factory = registry().get(credentials.protocol());
  return factory != nullptr ? factory(credentials) : nullptr;
}

}  // namespace ombra
