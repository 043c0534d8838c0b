// The certificates that the user has accepted although no authority vouches for them.
#pragma once

#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// A line of the file.
struct KnownCertificate {
  std::string fingerprint;  // "SHA256:…"
  int line = 0;             // counted from 1
};

// A text file, a line for each accepted certificate: "[host]:port SHA256:…". What stands behind that, empty
// lines and those that begin with "#" mean nothing.
class KnownCertificates {
 public:
  explicit KnownCertificates(std::string file) : iFile(std::move(file)) {}
  // $XDG_CONFIG_HOME/ombrafs/known_certificates.
  static KnownCertificates ofThisUser();

  const std::string& file() const { return iFile; }
  // What was accepted for that server; a missing or unreadable file counts as empty.
  std::vector<KnownCertificate> entries(const std::string& host, int port) const;
  // Adds a line; the file and its folder are made (modes 0600 and 0700) when they are missing. False, with
  // the error filled, when it cannot be written.
  [[nodiscard]] bool remember(const std::string& host, int port, const std::string& fingerprint,
                              NSErrorRef* error) const;

 private:
  std::string iFile;
};

}  // namespace ombra
