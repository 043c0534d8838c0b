// The contract over S3, on real servers.
#include "remote/s3/S3Engine.h"
#include "tests/s3/BucketServer.h"
#include "tests/s3/SharedServers.h"
#include "tests/support/ConnectionContractTests.h"

namespace ombra {
namespace {

class ObjectServer final : public BucketServer {
 public:
  ObjectServer(const S3Server& server, bool isReal) : BucketServer(server), iIsReal(isReal) {
    registerS3Engine();
  }
  // The stand-in keeps its objects in files and writes them in place.
  bool forgetsBrokenUploads() const override { return iIsReal; }

 private:
  const bool iIsReal;
};

std::vector<ContractServerKind> kinds() {
  std::vector<ContractServerKind> kinds{
      {"s3rver", [] { return std::make_unique<ObjectServer>(sharedS3Rver(), false); }}};
  if (RadosGatewayServer::isWanted())
    kinds.push_back({"gateway", [] { return std::make_unique<ObjectServer>(sharedGateway(), true); }});
  return kinds;
}

INSTANTIATE_TEST_SUITE_P(Servers, ConnectionContract, testing::ValuesIn(kinds()), contractName);

}  // namespace
}  // namespace ombra
