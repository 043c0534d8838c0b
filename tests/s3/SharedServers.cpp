#include "tests/s3/SharedServers.h"

namespace ombra {

S3RverServer& sharedS3Rver() {
  static S3RverServer sServer;
  return sServer;
}

RadosGatewayServer& sharedGateway() {
  static RadosGatewayServer sServer;
  return sServer;
}

}  // namespace ombra
