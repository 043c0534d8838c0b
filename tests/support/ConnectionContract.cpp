#include "tests/support/ConnectionContract.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

namespace fs = std::filesystem;

// The servers of this program, by the name of their kind; ended when the program ends.
std::map<std::string, std::unique_ptr<ContractServer>>& servers() {
  static std::map<std::string, std::unique_ptr<ContractServer>> sServers;
  return sServers;
}

bool isCI() {
  const char* value = std::getenv("CI");
  return value != nullptr && std::string_view(value) == "true";
}

}  // namespace

FolderBackedServer::FolderBackedServer() {
  std::string pattern = (fs::canonical(fs::temp_directory_path()) / "ombra-contract-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw KCException("no temporary folder can be made");
  iFolder = pattern;
}

FolderBackedServer::~FolderBackedServer() {
  std::error_code ignored;
  fs::remove_all(iFolder, ignored);
}

std::string FolderBackedServer::makeTestFolder() {
  const std::string path = iFolder + "/" + std::to_string(++iTests);
  fs::create_directory(path);
  return serverPath(path);
}

void FolderBackedServer::putFile(const std::string& path, const std::string& content) {
  std::ofstream(localPath(path), std::ios::binary) << content;
}

std::optional<std::string> FolderBackedServer::storedContent(const std::string& path) {
  if (!fs::is_regular_file(localPath(path))) return std::nullopt;
  std::ifstream file(localPath(path), std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void FolderBackedServer::makeFolder(const std::string& path) { fs::create_directories(localPath(path)); }

bool FolderBackedServer::exists(const std::string& path) {
  return fs::symlink_status(localPath(path)).type() != fs::file_type::not_found;
}

std::vector<std::string> FolderBackedServer::storedNames(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(localPath(path)))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

void ConnectionContract::SetUp() {
  std::unique_ptr<ContractServer>& running = servers()[GetParam().name];
  if (running == nullptr) running = GetParam().start();
  if (!running->whyNot().empty()) {
    ASSERT_FALSE(isCI()) << "this test needs its server: " << running->whyNot();
    GTEST_SKIP() << running->whyNot();
  }
  iServer = running.get();
  iRoot = iServer->makeTestFolder();
  NSErrorRef error;
  iPool = KCConnectionPool::initWithCredentials(iServer->credentials(), &error);
  ASSERT_NE(iPool, nullptr) << error->description();
  iConnection = iPool->acquireConnection();
  ASSERT_NE(iConnection, nullptr);
}

void ConnectionContract::TearDown() {
  if (iPool == nullptr) return;
  iPool->releaseConnection(std::move(iConnection));
  iPool->shutDown();
}

void ConnectionContract::reconnect() {
  iPool->releaseConnection(std::move(iConnection));
  iConnection = iPool->acquireConnection();
}

ConnectionContract::Nodes ConnectionContract::list(const std::string& path) {
  Nodes nodes;
  NSErrorRef error;
  EXPECT_TRUE(connection().contentsAtPath(path, &nodes, &error))
      << (error ? error->description() : "no error");
  return nodes;
}

std::vector<std::string> ConnectionContract::names(const std::string& path) {
  std::vector<std::string> result;
  for (const auto& item : list(path)) result.push_back(item->filename());
  std::sort(result.begin(), result.end());
  return result;
}

std::shared_ptr<KCRemoteFileNode> ConnectionContract::node(const std::string& folder,
                                                           const std::string& name) {
  for (const auto& item : list(folder)) {
    if (item->filename() == name) return item;
  }
  return nullptr;
}

std::optional<std::string> ConnectionContract::fetch(const std::string& path, uint64_t offset) {
  const auto file = temporaryFile(std::string(static_cast<size_t>(offset), '\0'));
  NSErrorRef error;
  uint64_t bytes = 0;
  if (!connection().downloadFileAtPath(path, *file, offset, &bytes, &error)) return std::nullopt;
  EXPECT_EQ(bytes, file->fileLength());
  return contentOf(*file).substr(static_cast<size_t>(offset));
}

bool ConnectionContract::send(const std::string& path, const std::string& content, NSErrorRef* error) {
  const auto file = temporaryFile(content);
  uint64_t bytes = 0;
  const bool sent = connection().uploadFileHandle(*file, path, path, 0, &bytes, error);
  if (sent) {
    EXPECT_EQ(bytes, content.size());
  }
  return sent;
}

bool ConnectionContract::makeLink(const std::string& path, const std::string& target) {
  NSErrorRef error;
  if (connection().createSymbolicLinkAtPath(path, target, &error)) return true;
  EXPECT_TRUE(hasCode(error, {kQuarnKitNotSupported}));
  EXPECT_FALSE(server().exists(path));
  return false;
}

testing::AssertionResult hasCode(const NSErrorRef& error, std::initializer_list<QuarnKitErrorCode> codes) {
  if (error == nullptr) return testing::AssertionFailure() << "there is no error";
  for (const QuarnKitErrorCode code : codes) {
    if (QuarnKitError::isCode(error, code)) return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "the error is " << error->description();
}

std::string contractContent(size_t length, unsigned seed) {
  // Word by word: tests are not optimised, and their sanitizers look at every access.
  std::mt19937_64 random(seed);
  std::string content(length, '\0');
  for (size_t at = 0; at < length; at += sizeof(uint64_t)) {
    const uint64_t word = random();
    std::memcpy(content.data() + at, &word, std::min(sizeof(word), length - at));
  }
  return content;
}

}  // namespace ombra
