// A bucket as a server of the tests that every protocol has to pass.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "remote/s3/S3Path.h"
#include "tests/s3/RawStore.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/S3Server.h"

namespace ombra {

// Folders are what keys have in common; an object that ends with a slash stands for an empty one. The server
// outlives it.
class BucketServer : public ContractServer {
 public:
  explicit BucketServer(const S3Server& server) : iServer(server) {}

  std::string whyNot() const override { return iServer.whyNot(); }
  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    iServer.configure(*credentials);
    return credentials;
  }
  std::string makeTestFolder() override {
    const std::string path = std::string("/") + S3Server::kBucket + "/test " + std::to_string(++iTests);
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
  std::unique_ptr<RawStore> iStore;
  int iTests = 0;
};

}  // namespace ombra
