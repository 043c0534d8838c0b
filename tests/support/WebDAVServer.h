// A real WebDAV server on a loopback port, for the life of the object.
#pragma once

#include <string>

#include "remote/KCCredentials.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/ServerProcess.h"

namespace ombra {

enum class WebDAVServerKind { kApacheBasic, kApacheDigest, kApacheTLS, kNginx, kLighttpd };

// Serves a folder of its own under "/dav", to one user with a password. Whoever the server runs as may change
// what the tests put there, and the other way round.
class WebDAVServer : public FolderBackedServer {
 public:
  static constexpr const char* kUser = "wanda";
  static constexpr const char* kPassword = "p:ss \"w\xC3\xB6rd\"";

  explicit WebDAVServer(WebDAVServerKind kind);
  ~WebDAVServer() override;

  std::string whyNot() const override { return iWhyNot; }
  std::shared_ptr<KCCredentials> credentials() override;
  std::string makeTestFolder() override;
  void putFile(const std::string& path, const std::string& content) override;
  void makeFolder(const std::string& path) override;

  // nginx lists no names that begin with a dot, lighttpd finds none with control characters.
  bool handlesName(const std::string& name) const override;

  int port() const { return iPort; }
  // Where what `path` names lies on this machine.
  std::string localPath(const std::string& serverPath) const override;
  // Ends the server's process, and starts it again on the same port.
  void stop() { iProcess.stop(); }
  bool restart();

 protected:
  std::string serverPath(const std::string& localPath) const override;

 private:
  bool prepare();
  bool prepareApache(bool isDigest, bool isTLS);
  bool prepareNginx();
  bool prepareLighttpd();
  void open(const std::string& localPath, int mode) const;
  std::string write(const std::string& name, const std::string& content) const;
  bool fail(const std::string& reason);

  const WebDAVServerKind iKind;
  std::string iConfiguration;  // the folder of the server's own files
  std::string iWhyNot;
  std::string iFingerprint;
  std::vector<std::string> iCommand;
  std::string iReady;
  int iPort = 0;
  ServerProcess iProcess;
};

}  // namespace ombra
