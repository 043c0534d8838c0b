// A real FTP server on a loopback port, for the life of the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "remote/KCCredentials.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/ServerProcess.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {

enum class FTPServerKind {
  kVsftpd,          // no MLSD; in the clear
  kVsftpdExplicit,  // TLS on demand, data connections must resume its session
  kVsftpdImplicit,  // TLS from the first byte, and the same demand
  kProftpd,         // MLSD, MFMT; in the clear
  kProftpdExplicit,
  kProftpdImplicit,
};

// Serves a folder of its own to one user; paths on the server are those of this machine. What the tests put
// there belongs to that user.
class FTPServerFixture : public FolderBackedServer {
 public:
  // `extra`: further lines of the server's configuration.
  explicit FTPServerFixture(FTPServerKind kind, const std::vector<std::string>& extra = {});
  ~FTPServerFixture() override;

  std::string whyNot() const override { return iWhyNot; }
  std::shared_ptr<KCCredentials> credentials() override;
  std::string makeTestFolder() override;
  void putFile(const std::string& path, const std::string& content) override;
  void makeFolder(const std::string& path) override;

  int port() const { return iPort; }
  const std::string& password() const { return iPassword; }
  // Ends the server, and every connection to it; starts it again on the same port.
  void stop();
  bool restart() { return iProcess.start(iCommand, {}, iPort); }

 private:
  bool isVsftpd() const { return iKind < FTPServerKind::kProftpd; }
  bool isImplicit() const {
    return iKind == FTPServerKind::kVsftpdImplicit || iKind == FTPServerKind::kProftpdImplicit;
  }
  bool isEncrypted() const { return iKind != FTPServerKind::kVsftpd && iKind != FTPServerKind::kProftpd; }
  bool prepareVsftpd(const std::vector<std::string>& extra);
  bool prepareProftpd(const std::vector<std::string>& extra);
  std::string write(const std::string& name, const std::string& content, int mode = 0600) const;
  void giveAway(const std::string& path) const;
  bool fail(const std::string& reason);

  const FTPServerKind iKind;
  std::string iConfiguration;  // the folder of the server's own files
  std::unique_ptr<TemporaryUser> iAccount;
  std::string iUser;
  std::string iPassword;
  unsigned iOwner;
  unsigned iGroup;
  std::string iFingerprint;
  std::vector<std::string> iCommand;
  std::string iWhyNot;
  int iPort = 0;
  ServerProcess iProcess;
};

}  // namespace ombra
