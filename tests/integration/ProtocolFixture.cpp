#include "tests/integration/ProtocolFixture.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "remote/KCTypes.h"
#include "tests/s3/BucketServer.h"
#include "tests/support/FTPServerFixture.h"
#include "tests/support/S3Server.h"
#include "tests/support/WebDAVServer.h"

namespace ombra {
namespace {

namespace fs = std::filesystem;

std::map<std::string, std::unique_ptr<ContractServer>>& runningServers() {
  static std::map<std::string, std::unique_ptr<ContractServer>> sServers;
  return sServers;
}

std::string inURL(const std::string& text, bool isPath) {
  std::string result;
  for (const char c : text) {
    const bool plain = isalnum(static_cast<unsigned char>(c)) != 0 || (isPath && c == '/');
    result += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return result;
}

const char* schemeOf(uint32_t protocol) {
  switch (protocol) {
    case kProtocolFTP:
      return "ftp";
    case kProtocolFTPImplicitTLS:
      return "ftps";
    case kProtocolFTPExplicitTLS:
      return "ftpes";
    case kProtocolWebDAV:
      return "dav";
    case kProtocolWebDAVTLS:
      return "https";
    default:
      return "s3";
  }
}

std::string contentOfFile(const fs::path& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const ProtocolServerKind& kind) { return stream << kind.name; }

std::string nameOfProtocolServer(const ::testing::TestParamInfo<ProtocolServerKind>& info) {
  return info.param.name;
}

std::unique_ptr<ContractServer> startWebDAV() {
  return std::make_unique<WebDAVServer>(WebDAVServerKind::kApacheDigest);
}
std::unique_ptr<ContractServer> startWebDAVOverTLS() {
  return std::make_unique<WebDAVServer>(WebDAVServerKind::kApacheTLS);
}
std::unique_ptr<ContractServer> startPoorFTP() {
  return std::make_unique<FTPServerFixture>(FTPServerKind::kVsftpd);
}
std::unique_ptr<ContractServer> startExplicitFTP() {
  return std::make_unique<FTPServerFixture>(FTPServerKind::kProftpdExplicit);
}
std::unique_ptr<ContractServer> startResumingFTP() {
  return std::make_unique<FTPServerFixture>(FTPServerKind::kVsftpdExplicit);
}
std::unique_ptr<ContractServer> startImplicitFTP() {
  return std::make_unique<FTPServerFixture>(FTPServerKind::kProftpdImplicit);
}
std::unique_ptr<ContractServer> startS3() {
  static const S3RverServer sServer;
  return std::make_unique<BucketServer>(sServer);
}

void ProtocolTest::SetUp() {
  ASSERT_TRUE(fs::exists("/dev/fuse")) << "These tests mount for real and need /dev/fuse.";
  ASSERT_TRUE(fs::is_directory("/Volumes")) << "These tests mount below /Volumes: mkdir -m 1777 /Volumes";
  std::unique_ptr<ContractServer>& running = runningServers()[GetParam().name];
  if (running == nullptr) running = GetParam().start();
  ASSERT_EQ(running->whyNot(), "");
  iServer = running.get();
  user = std::make_unique<OmbraUser>();
  std::ofstream(user->home() + "/password") << iServer->credentials()->password().value_or("") << "\n";
  fs::permissions(user->home() + "/password", fs::perms::owner_read | fs::perms::owner_write);
  folder = iServer->makeTestFolder();
  mount();
}

bool ProtocolTest::isS3() const { return iServer->credentials()->protocol() == kProtocolS3; }

std::string ProtocolTest::url(const std::string& path) const {
  const auto login = iServer->credentials();
  const std::string name = inURL(login->username().value_or(""), false);
  if (login->protocol() == kProtocolS3) {
    return shellWord(fmt::format("s3://{}@{}", name, inURL(path, true).substr(1))) + " --endpoint " +
           shellWord(login->option("endpoint").value_or(""));
  }
  return shellWord(fmt::format("{}://{}@{}:{}{}", schemeOf(login->protocol()), name, login->address(),
                               login->port(), inURL(path, true)));
}

std::string ProtocolTest::arguments(const std::string& path) const {
  return url(path) + " --accept-new" + otherArguments();
}

std::string ProtocolTest::otherArguments() const {
  return " --password-file " + shellWord(user->home() + "/password") + " --name " + volumeName();
}

std::string ProtocolTest::volumeName() { return fmt::format("protocol-{}", getpid()); }

void ProtocolTest::mount() { volume = user->mount(arguments(folder)); }

void ProtocolTest::unmount() {
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
}

void ProtocolTest::runInBoth(const std::string& script) {
  const ShellResult here = user->run("cd " + shellWord(volume) + " && " + script);
  const ShellResult there = user->run("cd " + shellWord(twin.path()) + " && " + script);
  EXPECT_EQ(here.status, there.status) << script << "\n" << here.errors << here.output;
  EXPECT_EQ(here.output, there.output) << script;
  expectStoredAsInTwin(script);
}

void ProtocolTest::expectStoredAsInTwin(const std::string& after) {
  compareFolder(twin.path(), folder, after);
}

void ProtocolTest::compareFolder(const std::string& local, const std::string& remote,
                                 const std::string& after) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(local)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(server().storedNames(remote), names) << "in " << remote << " after: " << after;
  for (const std::string& name : names) {
    const fs::path here = fs::path(local) / name;
    const std::string there = remote + "/" + name;
    if (fs::is_directory(here)) {
      compareFolder(here.string(), there, after);
      continue;
    }
    const auto stored = server().storedContent(there);
    // Not shown: it may be megabytes.
    EXPECT_TRUE(stored && *stored == contentOfFile(here)) << there << " differs after: " << after;
  }
}

}  // namespace ombra
