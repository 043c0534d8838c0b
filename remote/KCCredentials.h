// Who logs in where: the value that a connection pool is made from.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSDictionary.h"
#include "remote/KCUUID.h"

namespace ombra {

// Everything that a login needs. Set up by the front end, archived, and read by the helper; not changed after
// the pool was made, except for verbose logging. Secrets are wiped when it is destroyed.
class KCCredentials {
 public:
  KCCredentials();
  ~KCCredentials();
  KCCredentials(const KCCredentials&) = delete;
  KCCredentials& operator=(const KCCredentials&) = delete;

  uint32_t protocol() const { return iProtocol; }
  // A host name or a numeric address, one of IPv6 in brackets or without.
  const std::string& address() const { return iAddress; }
  int port() const { return iPort; }  // 0 = the protocol's own
  const std::optional<std::string>& username() const { return iUsername; }
  const std::optional<std::string>& password() const { return iPassword; }
  // The remote start folder: absolute, relative to the login folder, or beginning with "~"; in the server's
  // bytes. The archive holds it as text.
  const std::optional<std::string>& initialPath() const { return iInitialPath; }
  const std::optional<std::string>& encoding() const { return iEncoding; }  // absent = UTF-8
  const KCUUID& UUID() const { return iUUID; }
  // What only some protocols need. Keys in use: "identityFile", "passphrase", "fingerprint" ("SHA256:…" of
  // the accepted host key or certificate; several separated by blanks), "region", "endpoint", "pathStyle",
  // "sessionToken" (S3), "sftpServer" (path of a local sftp-server to speak to over a pipe), "inPlace",
  // "streaming" (engine local), "keyboardInteractive" (answers, one per line). Unknown keys are kept and
  // ignored.
  std::optional<std::string> option(std::string_view key) const;
  const std::map<std::string, std::string, std::less<>>& options() const { return iOptions; }
  bool useVerboseLogging() const { return iUseVerboseLogging; }

  void setProtocol(uint32_t protocol) { iProtocol = protocol; }
  void setAddress(std::string address) { iAddress = std::move(address); }
  void setPort(int port) { iPort = port; }
  void setUsername(std::optional<std::string> username) { iUsername = std::move(username); }
  void setPassword(std::optional<std::string> password);
  void setInitialPath(std::optional<std::string> path) { iInitialPath = std::move(path); }
  void setEncoding(std::optional<std::string> name) { iEncoding = std::move(name); }
  void setUUID(KCUUID uuid) { iUUID = uuid; }
  // As the password: what stood there before is wiped.
  void setOption(std::string key, std::string value);
  void setUseVerboseLogging(bool verbose) { iUseVerboseLogging = verbose; }

  // Between local text (UTF-8) and the server's bytes. With UTF-8 the identity; with another encoding
  // lossless in both directions: what has no counterpart travels as percent escapes that the reverse undoes.
  std::string remoteStringForUnicodeString(std::string_view text) const;
  std::string unicodeStringForRemoteString(std::string_view bytes) const;
  // The form of a remote name that is shown to the user.
  std::string displayStringForRemoteString(std::string_view bytes) const;

  // The archive that travels over the credential socket: class "KCCredentials", version 1.
  NSData archivedData() const;
  // The reverse; absent, with a reason that holds no secret, for anything else.
  static std::shared_ptr<KCCredentials> credentialsWithArchivedData(const NSData& data, std::string* reason);

 private:
  uint32_t iProtocol = 0;
  std::string iAddress;
  int iPort = 0;
  std::optional<std::string> iUsername;
  std::optional<std::string> iPassword;
  std::optional<std::string> iInitialPath;
  std::optional<std::string> iEncoding;
  KCUUID iUUID;
  std::map<std::string, std::string, std::less<>> iOptions;
  bool iUseVerboseLogging = false;
};

}  // namespace ombra
