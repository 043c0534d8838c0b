// What every engine owes the program: one suite of tests, run unchanged over each kind of server.
//
// A test program includes ConnectionContractTests.h in one source file and names its servers:
//
//   class MyServer : public FolderBackedServer { ... };
//   INSTANTIATE_TEST_SUITE_P(Servers, ConnectionContract,
//       testing::Values(ContractServerKind{"mine", [] { return std::make_unique<MyServer>(); }}),
//       contractName);
//
// One server of a kind serves all tests of the program; each test has an empty folder of its own on it. Where
// a protocol cannot do something, the operation must say so with the code that stands for that, and leave no
// trace.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/KCConnectionPool.h"
#include "remote/QuarnKitError.h"

namespace ombra {

// A running server, and the way around it to what it stores.
class ContractServer {
 public:
  virtual ~ContractServer() = default;
  // Empty when it runs; else why it does not.
  virtual std::string whyNot() const { return {}; }
  virtual std::shared_ptr<KCCredentials> credentials() = 0;
  // Makes an empty folder for one test: its path on the server.
  virtual std::string makeTestFolder() = 0;
  // What is stored, by the path on the server. Content is absent when there is no such file.
  virtual void putFile(const std::string& path, const std::string& content) = 0;
  virtual std::optional<std::string> storedContent(const std::string& path) = 0;
  virtual void makeFolder(const std::string& path) = 0;
  virtual bool exists(const std::string& path) = 0;
  // Names in a folder, whatever they are, sorted.
  virtual std::vector<std::string> storedNames(const std::string& path) = 0;
  // Whether the server both lists and serves items of that name. Some have names of their own that they do
  // not.
  virtual bool handlesName(const std::string& /*name*/) const { return true; }
  // Whether an upload that the client has broken off is over for the server too. One that goes on writing
  // what it has received mixes it with what is uploaded to the same name next.
  virtual bool forgetsBrokenUploads() const { return true; }
};

// A server whose paths are those of a folder of this machine, perhaps below a prefix.
class FolderBackedServer : public ContractServer {
 public:
  FolderBackedServer();
  ~FolderBackedServer() override;
  std::string makeTestFolder() override;
  void putFile(const std::string& path, const std::string& content) override;
  std::optional<std::string> storedContent(const std::string& path) override;
  void makeFolder(const std::string& path) override;
  bool exists(const std::string& path) override;
  std::vector<std::string> storedNames(const std::string& path) override;

 protected:
  // The local folder that holds everything, without links in its path; removed in the end.
  const std::string& folder() const { return iFolder; }
  // The path on the server of something in the local folder, and back.
  virtual std::string serverPath(const std::string& localPath) const { return localPath; }
  virtual std::string localPath(const std::string& serverPath) const { return serverPath; }

 private:
  std::string iFolder;
  int iTests = 0;
};

struct ContractServerKind {
  std::string name;
  std::function<std::unique_ptr<ContractServer>()> start;
};
inline std::string contractName(const testing::TestParamInfo<ContractServerKind>& info) {
  return info.param.name;
}

class ConnectionContract : public testing::TestWithParam<ContractServerKind> {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The test's folder, and something in it.
  const std::string& root() const { return iRoot; }
  std::string at(const std::string& name) const { return iRoot + "/" + name; }
  ContractServer& server() { return *iServer; }
  KCConnectionPool& pool() { return *iPool; }
  AbstractConnection& connection() { return *iConnection; }
  // Gives the connection back and takes another.
  void reconnect();

  using Nodes = std::vector<std::shared_ptr<KCRemoteFileNode>>;
  // The listing of a folder; a failure fails the test.
  Nodes list(const std::string& path);
  // The names in it, sorted.
  std::vector<std::string> names(const std::string& path);
  std::shared_ptr<KCRemoteFileNode> node(const std::string& folder, const std::string& name);
  // The whole remote file; absent when the download failed.
  std::optional<std::string> fetch(const std::string& path, uint64_t offset = 0);
  bool send(const std::string& path, const std::string& content, NSErrorRef* error = nullptr);
  // True when links can be made; else the refusal was checked, and the test is over.
  bool makeLink(const std::string& path, const std::string& target);

 private:
  ContractServer* iServer = nullptr;
  std::string iRoot;
  std::shared_ptr<KCConnectionPool> iPool;
  std::shared_ptr<AbstractConnection> iConnection;
};

// Fails the test unless the error is the library's, with one of these codes.
testing::AssertionResult hasCode(const NSErrorRef& error, std::initializer_list<QuarnKitErrorCode> codes);
// Pseudo-random bytes, always the same.
std::string contractContent(size_t length, unsigned seed = 1);

}  // namespace ombra
