#include "remote/ftp/FTPEngine.h"

#include <memory>

#include "remote/ftp/FTPServer.h"
#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {

class FTPEngine final : public Engine {
 public:
  explicit FTPEngine(uint32_t protocol) : iProtocol(protocol) {}
  uint32_t protocol() const override { return iProtocol; }
  // Servers disagree on what an upload behind a REST does to the rest of a file: one cuts it off, another
  // keeps it, a third moves the offset.
  bool supportsUploadByteOffset() const override { return false; }
  bool keepsNamesOfNewItems() const override { return true; }
  bool isAskedAhead() const override { return true; }
  int sessionCap() const override { return 4; }

  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override {
    return std::make_unique<FTPSession>(environment, iServer);
  }

 private:
  const uint32_t iProtocol;
  const std::shared_ptr<FTPServer> iServer = std::make_shared<FTPServer>();
};

std::shared_ptr<Engine> makeFTPEngine(const KCCredentials& credentials) {
  return std::make_shared<FTPEngine>(credentials.protocol());
}

}  // namespace

void registerFTPEngine() {
  for (const uint32_t protocol : {kProtocolFTP, kProtocolFTPExplicitTLS, kProtocolFTPImplicitTLS}) {
    EngineRegistry::registerEngine(protocol, makeFTPEngine);
  }
}

}  // namespace ombra
