// Real S3 servers on loopback ports, for the life of an object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "remote/KCCredentials.h"
#include "remote/KCTypes.h"
#include "tests/support/ServerProcess.h"
#include "tests/support/TestCertificates.h"

namespace ombra {

// What both have: an access key and its secret; tests use the bucket "test", which the gateway is yet to be
// given. Used by one thread, which must live as long: the system ends the processes with it.
class S3Server {
 public:
  virtual ~S3Server();
  S3Server(const S3Server&) = delete;
  S3Server& operator=(const S3Server&) = delete;

  // Whether it runs; else the reason, with what to do about it.
  bool isRunning() const { return iWhyNot.empty(); }
  const std::string& whyNot() const { return iWhyNot; }
  std::string endpoint() const {
    return (iFingerprint.empty() ? "http" : "https") + ("://127.0.0.1:" + std::to_string(iPort));
  }
  int port() const { return iPort; }
  // Everything that a login needs.
  void configure(KCCredentials& credentials) const;

  static constexpr const char* kBucket = "test";

 protected:
  S3Server();
  bool fail(std::string why);
  // Starts a program that ends with this process; see ServerProcess.
  bool start(const std::vector<std::string>& command, const std::string& ready, int port);
  // Runs one to its end: whether it succeeded.
  bool run(const std::vector<std::string>& command);
  std::string logText() const;

  std::string iFolder;
  std::string iWhyNot;
  int iPort = 0;
  std::string iFingerprint;  // of the certificate, when it speaks TLS
  std::vector<std::unique_ptr<ServerProcess>> iProcesses;
};

// A small server that keeps objects as files: starts in a second.
class S3RverServer final : public S3Server {
 public:
  // With a certificate: over TLS.
  explicit S3RverServer(const TestCertificate* certificate = nullptr);
};

// A storage cluster of one machine with its gateway: takes a quarter of a minute and half a gigabyte.
class RadosGatewayServer final : public S3Server {
 public:
  RadosGatewayServer();
  // Whether tests are to start it: with OMBRA_NIGHTLY or OMBRA_FULL set to "1".
  static bool isWanted();

 private:
  void writeConfiguration(int oldMonitorPort);
  bool startCluster();
  bool startGateway();

  int iMonitorPort = 0;
};

}  // namespace ombra
