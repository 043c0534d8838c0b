// Certificates made for a test.
#pragma once

#include <string>
#include <vector>

namespace ombra {

struct CertificateWish {
  std::string commonName = "Server";
  std::vector<std::string> names;  // "DNS:localhost", "IP:127.0.0.1"
  int firstDay = -1;               // of its validity, counted from now
  int lastDay = 30;
  bool isAuthority = false;
};

// A certificate with its key (P-256), both as PEM.
struct TestCertificate {
  std::string pem;
  std::string key;
  std::string fingerprint;  // "SHA256:…", reckoned here on its own
};

// Signed by `issuer`, or with its own key. Throws std::runtime_error when the library fails.
TestCertificate makeTestCertificate(const CertificateWish& wish, const TestCertificate* issuer = nullptr);

// For localhost, 127.0.0.1 and ::1.
TestCertificate makeLocalhostCertificate(const TestCertificate* issuer = nullptr);

}  // namespace ombra
