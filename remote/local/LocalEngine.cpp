#include "remote/local/LocalEngine.h"

#include "remote/local/LocalSession.h"

namespace ombra {
namespace {

// The calls block in the system, so that more sessions than processors are of use.
constexpr int kSessionCap = 8;

class LocalEngine final : public Engine {
 public:
  explicit LocalEngine(bool inPlace) : iInPlace(inPlace) {}
  uint32_t protocol() const override { return kProtocolFile; }
  bool supportsUploadByteOffset() const override { return iInPlace; }
  bool keepsNamesOfNewItems() const override { return true; }
  int sessionCap() const override { return kSessionCap; }
  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override {
    return std::make_unique<LocalSession>(environment);
  }

 private:
  const bool iInPlace;
};

std::shared_ptr<Engine> makeLocalEngine(const KCCredentials& credentials) {
  return std::make_shared<LocalEngine>(credentials.option("inPlace") != "0");
}

}  // namespace

void registerLocalEngine() { EngineRegistry::registerEngine(kProtocolFile, makeLocalEngine); }

}  // namespace ombra
