#include "remote/webdav/WebDAVEngine.h"

#include "remote/webdav/WebDAVSession.h"

namespace ombra {
namespace {

// Requests are short and servers serve many.
constexpr int kSessionCap = 16;

class WebDAVEngine final : public Engine {
 public:
  explicit WebDAVEngine(uint32_t protocol) : iProtocol(protocol) {}
  uint32_t protocol() const override { return iProtocol; }
  bool isWebDAV() const override { return true; }
  bool supportsUploadByteOffset() const override { return false; }
  bool keepsNamesOfNewItems() const override { return true; }
  bool isAskedAhead() const override { return true; }
  int sessionCap() const override { return kSessionCap; }
  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override {
    return std::make_unique<WebDAVSession>(environment, iFacts);
  }

 private:
  const uint32_t iProtocol;
  const std::shared_ptr<WebDAVFacts> iFacts = std::make_shared<WebDAVFacts>();
};

std::shared_ptr<Engine> makeWebDAVEngine(const KCCredentials& credentials) {
  return std::make_shared<WebDAVEngine>(credentials.protocol());
}

}  // namespace

void registerWebDAVEngine() {
  EngineRegistry::registerEngine(kProtocolWebDAV, makeWebDAVEngine);
  EngineRegistry::registerEngine(kProtocolWebDAVTLS, makeWebDAVEngine);
}

}  // namespace ombra
