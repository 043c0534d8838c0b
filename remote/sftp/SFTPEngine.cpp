#include "remote/sftp/SFTPEngine.h"

#include "remote/sftp/PipeTransport.h"
#include "remote/sftp/SFTPSession.h"
#include "remote/sftp/SSHTransport.h"

namespace ombra {

namespace {

class SFTPEngine final : public Engine {
 public:
  uint32_t protocol() const override { return kProtocolSFTP; }
  bool isSFTP() const override { return true; }
  bool supportsUploadByteOffset() const override { return true; }
  bool keepsNamesOfNewItems() const override { return true; }
  bool looksAtNewFiles() const override { return true; }
  int sessionCap() const override { return 8; }

  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override {
    std::unique_ptr<SFTPTransport> transport;
    if (auto program = environment.credentials->option("sftpServer"); program && !program->empty()) {
      transport = std::make_unique<PipeTransport>(std::move(*program));
    } else {
      transport = std::make_unique<SSHTransport>(environment);
    }
    return std::make_unique<SFTPSession>(std::move(transport), environment, iWalks);
  }

 private:
  const std::shared_ptr<Walks> iWalks = std::make_shared<Walks>();
};

}  // namespace

void registerSFTPEngine() {
  EngineRegistry::registerEngine(kProtocolSFTP, [](const KCCredentials&) -> std::shared_ptr<Engine> {
    return std::make_shared<SFTPEngine>();
  });
}

}  // namespace ombra
