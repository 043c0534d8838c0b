// The contract over WebDAV, on real servers.
#include "remote/webdav/WebDAVEngine.h"
#include "tests/support/ConnectionContractTests.h"
#include "tests/support/WebDAVServer.h"

namespace ombra {
namespace {

ContractServerKind serverOfKind(const std::string& name, WebDAVServerKind kind) {
  return {name, [kind] {
            registerWebDAVEngine();
            return std::make_unique<WebDAVServer>(kind);
          }};
}

INSTANTIATE_TEST_SUITE_P(Servers, ConnectionContract,
                         testing::Values(serverOfKind("apacheBasic", WebDAVServerKind::kApacheBasic),
                                         serverOfKind("apacheDigest", WebDAVServerKind::kApacheDigest),
                                         serverOfKind("apacheTLS", WebDAVServerKind::kApacheTLS),
                                         serverOfKind("nginx", WebDAVServerKind::kNginx),
                                         serverOfKind("lighttpd", WebDAVServerKind::kLighttpd)),
                         contractName);

}  // namespace
}  // namespace ombra
