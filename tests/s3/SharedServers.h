// The servers that all tests of the program have in common.
#pragma once

#include "tests/support/S3Server.h"

namespace ombra {

// Started when first asked for, ended with the program.
S3RverServer& sharedS3Rver();
RadosGatewayServer& sharedGateway();

}  // namespace ombra
