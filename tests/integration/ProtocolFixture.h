// A volume of a server of each protocol but SFTP, and a local twin to compare the server with.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "tests/integration/MountFixture.h"
#include "tests/support/ConnectionContract.h"

namespace ombra {

struct ProtocolServerKind {
  const char* name;
  std::unique_ptr<ContractServer> (*start)();
};
std::ostream& operator<<(std::ostream& stream, const ProtocolServerKind& kind);
std::string nameOfProtocolServer(const ::testing::TestParamInfo<ProtocolServerKind>& info);

// WebDAV by digest in the clear and over TLS; FTP in the clear on a server that is poor in features, over TLS
// of both kinds on one that is rich, and where data connections must resume the session.
std::unique_ptr<ContractServer> startWebDAV();
std::unique_ptr<ContractServer> startWebDAVOverTLS();
std::unique_ptr<ContractServer> startPoorFTP();
std::unique_ptr<ContractServer> startExplicitFTP();
std::unique_ptr<ContractServer> startResumingFTP();
std::unique_ptr<ContractServer> startImplicitFTP();
std::unique_ptr<ContractServer> startS3();

inline constexpr ProtocolServerKind kWebDAVKind{"WebDAV", startWebDAV};
inline constexpr ProtocolServerKind kWebDAVOverTLSKind{"WebDAVOverTLS", startWebDAVOverTLS};
inline constexpr ProtocolServerKind kPoorFTPKind{"PoorFTP", startPoorFTP};
inline constexpr ProtocolServerKind kExplicitFTPKind{"ExplicitFTP", startExplicitFTP};
inline constexpr ProtocolServerKind kResumingFTPKind{"ResumingFTP", startResumingFTP};
inline constexpr ProtocolServerKind kImplicitFTPKind{"ImplicitFTP", startImplicitFTP};
inline constexpr ProtocolServerKind kS3Kind{"S3", startS3};

// One server of a kind serves all tests of the program; each test mounts an empty folder of its own on it,
// through the command, as a user who has the password in a file.
class ProtocolTest : public ::testing::TestWithParam<ProtocolServerKind> {
 protected:
  void SetUp() override;

  ContractServer& server() const { return *iServer; }
  bool isS3() const;
  // The URL of a folder on the server, with the user's name where there is one, and what else "mount" needs;
  // a word of a shell line each.
  std::string url(const std::string& path) const;
  std::string arguments(const std::string& path) const;
  // The password, and a name that no other program's volume has.
  std::string otherArguments() const;
  static std::string volumeName();
  // Mounts the test's folder, as `volume`.
  void mount();
  void unmount();

  // Runs the script in the volume and in the twin; its exit status and its standard output must be the same.
  // Then compares what the server stores with the twin.
  void runInBoth(const std::string& script);
  // Whether the server stores exactly what the twin holds: names and bytes, and nothing else.
  void expectStoredAsInTwin(const std::string& after);

  std::unique_ptr<OmbraUser> user;
  std::string folder;  // on the server
  std::string volume;  // the mount point
  TemporaryFolder twin;

 private:
  void compareFolder(const std::string& local, const std::string& remote, const std::string& after);

  ContractServer* iServer = nullptr;
};

}  // namespace ombra
