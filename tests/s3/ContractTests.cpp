// The contract over S3, on real servers.
#include <algorithm>
#include <set>

#include "remote/s3/S3Engine.h"
#include "tests/s3/RawStore.h"
#include "tests/s3/SharedServers.h"
#include "tests/support/ConnectionContractTests.h"

namespace ombra {
namespace {

class ObjectServer : public ContractServer {
 public:
  ObjectServer(const S3Server& server, bool isReal) : iServer(server), iIsReal(isReal) { registerS3Engine(); }
  // The stand-in keeps its objects in files and writes them in place.
  bool forgetsBrokenUploads() const override { return iIsReal; }

  std::string whyNot() const override { return iServer.whyNot(); }

  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    iServer.configure(*credentials);
    return credentials;
  }

  std::string makeTestFolder() override {
    const std::string path = std::string("/") + S3Server::kBucket + "/contract " + std::to_string(++iTests);
    makeFolder(path);
    return path;
  }

  void putFile(const std::string& path, const std::string& content) override {
    store().put(key(path), content);
  }
  std::optional<std::string> storedContent(const std::string& path) override {
    return store().get(key(path));
  }
  void makeFolder(const std::string& path) override { store().put(key(path) + "/", ""); }

  bool exists(const std::string& path) override {
    return store().head(key(path)).has_value() || !store().keys(key(path) + "/").empty();
  }

  std::vector<std::string> storedNames(const std::string& path) override {
    const std::string prefix = key(path) + "/";
    std::set<std::string> names;
    for (const std::string& found : store().keys(prefix)) {
      const std::string rest = found.substr(prefix.size());
      if (!rest.empty()) names.insert(rest.substr(0, rest.find('/')));
    }
    return {names.begin(), names.end()};
  }

 private:
  static std::string key(const std::string& path) { return S3Path::parse(path).key; }

  RawStore& store() {
    if (iStore == nullptr) {
      iStore = std::make_unique<RawStore>(credentials(), S3Server::kBucket);
      iStore->makeBucket();
    }
    return *iStore;
  }

  const S3Server& iServer;
  const bool iIsReal;
  std::unique_ptr<RawStore> iStore;
  int iTests = 0;
};

std::vector<ContractServerKind> kinds() {
  std::vector<ContractServerKind> kinds{
      {"s3rver", [] { return std::make_unique<ObjectServer>(sharedS3Rver(), false); }}};
  if (RadosGatewayServer::isWanted())
    kinds.push_back({"gateway", [] { return std::make_unique<ObjectServer>(sharedGateway(), true); }});
  return kinds;
}

INSTANTIATE_TEST_SUITE_P(Servers, ConnectionContract, testing::ValuesIn(kinds()), contractName);

}  // namespace
}  // namespace ombra
