// A real SSH server on a loopback port, for the life of the object.
//
//   SshdFixture server;                              // key login for the user that runs the tests
//   ASSERT_TRUE(server.isRunning()) << server.whyNot();
//   server.configure(*credentials);                  // protocol, address, port, user, key, fingerprint
//   server.dropConnections();                        // as when the network breaks
//   server.stop(); ... server.start();               // on the same port, with the same host key
#pragma once

#include <string>
#include <vector>

#include "remote/KCCredentials.h"
#include "tests/support/ServerProcess.h"

namespace ombra {

// Owns the server process and a temporary folder with its keys; both are gone afterwards. Used by one thread,
// which must live as long: the system ends the server with it.
class SshdFixture {
 public:
  // `extraConfiguration`: further lines for sshd_config. They come first, so that they win. `address`:
  // another one of this machine's own, 127.x.y.z.
  explicit SshdFixture(std::vector<std::string> extraConfiguration = {}, std::string address = "127.0.0.1");
  ~SshdFixture();
  SshdFixture(const SshdFixture&) = delete;
  SshdFixture& operator=(const SshdFixture&) = delete;

  // Whether the constructor, or the last start, succeeded; else the reason.
  bool isRunning() const { return iServer.isRunning(); }
  const std::string& whyNot() const { return iWhyNot; }

  const std::string& address() const { return iAddress; }
  int port() const { return iPort; }
  const std::string& user() const { return iUser; }
  std::string identityFile() const { return iFolder + "/client_key"; }
  // Whose keys may log in, a line each; the one of `identityFile` is there.
  std::string authorizedKeysFile() const { return iFolder + "/authorized_keys"; }
  const std::string& folder() const { return iFolder; }
  // The server's entry for a known_hosts file.
  std::string knownHostsLine() const;
  // "SHA256:…" of the host key.
  const std::string& fingerprint() const { return iFingerprint; }
  // Everything that a login needs.
  void configure(KCCredentials& credentials) const;

  // Starts again on the port of the first start, and returns when the server listens.
  bool start();
  // Ends the server; connections that are open stay.
  void stop() { iServer.stop(); }
  // Ends the processes that serve open connections.
  void dropConnections();
  // What the server wrote from its start up to `text`; empty when that does not come.
  std::string waitForLog(const std::string& text);

 private:
  bool prepare();
  bool fail(const std::string& reason);

  const std::vector<std::string> iExtraConfiguration;
  const std::string iAddress;
  std::string iFolder;
  std::string iUser;
  std::string iFingerprint;
  std::string iWhyNot;
  int iPort = 0;
  ServerProcess iServer;
};

}  // namespace ombra
