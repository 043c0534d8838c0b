// The contract over FTP, on real servers.
#include "remote/ftp/FTPEngine.h"
#include "tests/support/ConnectionContractTests.h"
#include "tests/support/FTPServerFixture.h"

namespace ombra {
namespace {

ContractServerKind serverOfKind(const std::string& name, FTPServerKind kind) {
  return {name, [kind] {
            registerFTPEngine();
            return std::make_unique<FTPServerFixture>(kind);
          }};
}

INSTANTIATE_TEST_SUITE_P(Servers, ConnectionContract,
                         testing::Values(serverOfKind("vsftpd", FTPServerKind::kVsftpd),
                                         serverOfKind("vsftpdTLS", FTPServerKind::kVsftpdExplicit),
                                         serverOfKind("vsftpdImplicit", FTPServerKind::kVsftpdImplicit),
                                         serverOfKind("proftpd", FTPServerKind::kProftpd),
                                         serverOfKind("proftpdTLS", FTPServerKind::kProftpdExplicit),
                                         serverOfKind("proftpdImplicit", FTPServerKind::kProftpdImplicit)),
                         contractName);

}  // namespace
}  // namespace ombra
