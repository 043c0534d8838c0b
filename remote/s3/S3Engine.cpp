#include "remote/s3/S3Engine.h"

#include "remote/s3/S3Session.h"

namespace ombra {
namespace {

constexpr int kSessionCap = 16;

class S3Engine final : public Engine {
 public:
  explicit S3Engine(std::optional<S3Endpoint> endpoint) : iEndpoint(std::move(endpoint)) {}
  uint32_t protocol() const override { return kProtocolS3; }
  bool supportsUploadByteOffset() const override { return false; }
  bool keepsNamesOfNewItems() const override { return true; }
  bool putsOffNewFiles() const override { return true; }
  bool isAskedAhead() const override { return true; }
  int sessionCap() const override { return kSessionCap; }
  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override {
    return std::make_unique<S3Session>(environment, iEndpoint, iKnowledge);
  }

 private:
  const std::optional<S3Endpoint> iEndpoint;
  const std::shared_ptr<S3Knowledge> iKnowledge = std::make_shared<S3Knowledge>();
};

std::shared_ptr<Engine> makeS3Engine(const KCCredentials& credentials) {
  return std::make_shared<S3Engine>(S3Endpoint::fromCredentials(credentials));
}

}  // namespace

void registerS3Engine() { EngineRegistry::registerEngine(kProtocolS3, makeS3Engine); }

}  // namespace ombra
