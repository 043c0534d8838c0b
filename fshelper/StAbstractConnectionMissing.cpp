#include "fshelper/StAbstractConnectionMissing.h"

#include "platform/foundation/NeverDestroyed.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

bool fail(NSErrorRef* error) {
  storeError(error,
             QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "there is no connection to the server"));
  return false;
}

class MissingConnection final : public AbstractConnection {
 public:
  uint32_t protocol() const override { return 0; }
  bool isSFTP() const override { return false; }
  bool isWebDAV() const override { return false; }
  bool supportsUploadByteOffset() const override { return false; }
  const KCUUID& UUID() const override { return iUUID; }
  void setDelegate(ConnectionDelegate*) override {}
  ConnectionDelegate* delegate() const override { return nullptr; }
  std::optional<std::string> loginPath() const override { return std::nullopt; }
  bool connect(NSErrorRef* error) override { return fail(error); }
  bool changeDir(std::string_view, NSErrorRef* error) override { return fail(error); }
  std::optional<std::string> pwd(NSErrorRef* error) override {
    fail(error);
    return std::nullopt;
  }
  bool resolvePath(std::string_view, std::string*, bool*, NSErrorRef* error) override { return fail(error); }
  std::optional<NSFileAttributes> attributesOfItemAtPath(std::string_view, bool*,
                                                         NSErrorRef* error) override {
    fail(error);
    return std::nullopt;
  }
  std::optional<NSFileAttributes> fileSystemAttributesAtPath(std::string_view, NSErrorRef* error) override {
    fail(error);
    return std::nullopt;
  }
  bool contentsAtPath(std::string_view, std::vector<std::shared_ptr<KCRemoteFileNode>>*,
                      NSErrorRef* error) override {
    return fail(error);
  }
  bool createFolderAtPath(std::string_view, NSErrorRef* error) override { return fail(error); }
  bool createSymbolicLinkAtPath(std::string_view, std::string_view, NSErrorRef* error) override {
    return fail(error);
  }
  bool moveItemFromPath(std::string_view, bool, std::string_view, NSErrorRef* error) override {
    return fail(error);
  }
  bool deleteItemAtPath(std::string_view, bool, NSErrorRef* error) override { return fail(error); }
  bool changeAttributes(const NSFileAttributes&, std::string_view, NSErrorRef* error) override {
    return fail(error);
  }
  bool downloadFileAtPath(std::string_view, NSFileHandle&, uint64_t, uint64_t* bytesTransferred,
                          NSErrorRef* error) override {
    return failTransfer(bytesTransferred, error);
  }
  bool uploadFileAtPath(const std::string&, std::string_view, uint64_t, uint64_t* bytesTransferred,
                        NSErrorRef* error) override {
    return failTransfer(bytesTransferred, error);
  }
  bool uploadFileHandle(NSFileHandle&, std::string_view, std::string_view, uint64_t,
                        uint64_t* bytesTransferred, NSErrorRef* error) override {
    return failTransfer(bytesTransferred, error);
  }
  bool streamBytesWithFilename(std::string_view, std::string_view, ConnectionDelegate&,
                               NSErrorRef* error) override {
    return fail(error);
  }
  void setShouldCancel(bool) override {}
  std::string displayStringForRemoteString(std::string_view bytes) const override {
    return std::string(bytes);
  }

 private:
  static bool failTransfer(uint64_t* bytesTransferred, NSErrorRef* error) {
    if (bytesTransferred != nullptr) *bytesTransferred = 0;
    return fail(error);
  }
  const KCUUID iUUID{};
};

}  // namespace

AbstractConnection& missingConnection() {
  static NeverDestroyed<MissingConnection> sMissing;
  return *sMissing;
}

}  // namespace ombra
