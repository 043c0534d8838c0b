#include "bench/micro/MemoryEngine.h"

#include <fmt/format.h>

#include "remote/ConnectionPool.h"
#include "remote/QuarnKitError.h"
#include "remote/Session.h"

namespace ombra {
namespace {

struct Extent {
  size_t folders, files;
};

NSErrorRef notHere() { return QuarnKitError::errorWithCode(kQuarnKitRefused, "this server only lists"); }

class MemorySession final : public Session {
 public:
  explicit MemorySession(Extent extent) : iExtent(extent) {}

  bool logIn(NSErrorRef*) override { return true; }
  std::string loginPath() const override { return "/"; }
  bool isAlive() override { return true; }
  void interrupt() override {}
  std::optional<std::string> realPath(std::string_view path, std::string_view, bool* isDirectory,
                                      NSErrorRef*) override {
    if (isDirectory != nullptr) *isDirectory = true;
    return std::string(path);
  }
  std::optional<LinkResolution> resolveLink(std::string_view, NSErrorRef* error) override {
    storeError(error, notHere());
    return std::nullopt;
  }
  std::optional<NSFileAttributes> attributes(std::string_view, bool* isDirectory, NSErrorRef*) override {
    if (isDirectory != nullptr) *isDirectory = true;
    return NSFileAttributes();
  }
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view, NSErrorRef*) override {
    return NSFileAttributes();
  }
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef*) override {
    const bool isRoot = path == "/";
    const size_t count = isRoot ? iExtent.folders : iExtent.files;
    entries->resize(count);
    for (size_t i = 0; i < count; ++i) {
      RemoteEntry& entry = (*entries)[i];
      entry.name = fmt::format("{}{:05}", isRoot ? "folder" : "file", i);
      entry.type = isRoot ? kNodeTypeFolder : kNodeTypeFile;
      entry.attributes.fileSize = i;
      entry.attributes.posixPermissions = 0644;
    }
    return true;
  }
  bool createFolder(std::string_view, NSErrorRef* error) override { return refuse(error); }
  bool createSymbolicLink(std::string_view, std::string_view, NSErrorRef* error) override {
    return refuse(error);
  }
  bool move(std::string_view, bool, std::string_view, NSErrorRef* error) override { return refuse(error); }
  bool remove(std::string_view, bool, NSErrorRef* error) override { return refuse(error); }
  bool changeAttributes(const NSFileAttributes&, std::string_view, NSErrorRef* error) override {
    return refuse(error);
  }
  bool download(std::string_view, NSFileHandle&, uint64_t, std::string*, TransferControl&,
                NSErrorRef* error) override {
    return refuse(error);
  }
  bool upload(NSFileHandle&, std::string_view, uint64_t, TransferControl&, NSErrorRef* error) override {
    return refuse(error);
  }
  bool stream(const std::function<size_t(std::byte*, size_t)>&, std::string_view, TransferControl&,
              NSErrorRef* error) override {
    return refuse(error);
  }

 private:
  static bool refuse(NSErrorRef* error) {
    storeError(error, notHere());
    return false;
  }

  const Extent iExtent;
};

class MemoryEngine final : public Engine {
 public:
  explicit MemoryEngine(Extent extent) : iExtent(extent) {}
  uint32_t protocol() const override { return kProtocolSFTP; }
  bool supportsUploadByteOffset() const override { return true; }
  int sessionCap() const override { return 4; }
  std::unique_ptr<Session> makeSession(const SessionEnvironment&) override {
    return std::make_unique<MemorySession>(iExtent);
  }

 private:
  const Extent iExtent;
};

}  // namespace

std::shared_ptr<KCConnectionPool> memoryPool(size_t folders, size_t files) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  return std::make_shared<ConnectionPool>(credentials,
                                          std::make_shared<MemoryEngine>(Extent{folders, files}));
}

}  // namespace ombra
