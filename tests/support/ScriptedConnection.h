// A connection to the scripted server. For tests/support alone.
#pragma once

#include "tests/support/ScriptedServerState.h"

namespace ombra {

class ScriptedConnection final : public AbstractConnection {
 public:
  ScriptedConnection(std::shared_ptr<ScriptedServer::State> state, int number)
      : iState(std::move(state)), iNumber(number) {}

  uint32_t protocol() const override { return iState->iCredentials->protocol(); }
  bool isSFTP() const override { return iState->iIsSFTP; }
  bool isWebDAV() const override { return iState->iIsWebDAV; }
  bool supportsUploadByteOffset() const override { return iState->iSupportsUploadByteOffset; }
  const KCUUID& UUID() const override { return iUUID; }
  void setDelegate(ConnectionDelegate* delegate) override;
  ConnectionDelegate* delegate() const override { return iDelegate; }

  std::optional<std::string> loginPath() const override;
  bool connect(NSErrorRef* error) override;
  bool changeDir(std::string_view path, NSErrorRef* error) override;
  std::optional<std::string> pwd(NSErrorRef* error) override;
  bool resolvePath(std::string_view path, std::string* resolvedPath, bool* isDirectory,
                   NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfItemAtPath(std::string_view path, bool* isDirectory,
                                                         NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributesAtPath(std::string_view path,
                                                             NSErrorRef* error) override;
  bool contentsAtPath(std::string_view path, std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                      NSErrorRef* error) override;
  bool contentsAtPath(std::string_view path, uint64_t known, FolderContents* contents,
                      NSErrorRef* error) override;
  bool createFolderAtPath(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                NSErrorRef* error) override;
  bool moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                        NSErrorRef* error) override;
  bool deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                        NSErrorRef* error) override;
  bool downloadFileAtPath(std::string_view path, NSFileHandle& toFileHandle, uint64_t byteOffset,
                          uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool uploadFileAtPath(const std::string& localPath, std::string_view toPath, uint64_t byteOffset,
                        uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool uploadFileHandle(NSFileHandle& fileHandle, std::string_view withFilename, std::string_view toPath,
                        uint64_t byteOffset, uint64_t* bytesTransferred, NSErrorRef* error) override;
  bool flushFileAtPath(std::string_view path, NSErrorRef* error) override;
  bool streamBytesWithFilename(std::string_view filename, std::string_view toPath,
                               ConnectionDelegate& handler, NSErrorRef* error) override;
  void setTakesAhead(bool takesAhead) override { iTakesAhead = takesAhead; }
  void setShouldCancel(bool shouldCancel) override;
  std::string displayStringForRemoteString(std::string_view bytes) const override;

 private:
  // What a transfer does, once the call was admitted.
  struct Course {
    std::string operation;
    std::string path;
    uint64_t offset = 0;
    size_t transfer = 0;
    uint64_t moved = 0;
  };
  CallVerdict begin(std::string_view operation, std::vector<std::string> arguments, std::string_view path);
  CallVerdict beginTransfer(Course& course, std::vector<std::string> arguments, std::string_view name,
                            std::vector<FileExtent> extents);
  // Stops at the present position for holds, errors and the cancel flag.
  CallVerdict stopOver(const Course& course);
  CallVerdict deliver(Course& course, const std::string& content, NSFileHandle& handle);
  CallVerdict take(Course& course, NSFileHandle& handle);
  CallVerdict pull(Course& course, ConnectionDelegate& handler);
  CallVerdict finish(const Course& course, CallVerdict verdict, uint64_t* bytesTransferred);
  bool upload(Course& course, CallVerdict verdict, NSFileHandle& handle, uint64_t* bytesTransferred,
              NSErrorRef* error);
  void storeUploaded(const Course& course);
  std::shared_ptr<KCRemoteFileNode> makeNode(const ScriptedItem& item, const std::string& path) const;
  void moved(Course& course, std::string_view bytes);
  // The result of a call that is not decided yet by `verdict`; stores the side error on success.
  static bool settle(const CallVerdict& verdict, NSErrorRef* error);
  static bool refuse(QuarnKitErrorCode code, std::string_view path, NSErrorRef* error);
  std::string absolute(std::string_view path) const;

  const std::shared_ptr<ScriptedServer::State> iState;
  bool iTakesAhead = false;  // of the holder's thread
  const int iNumber;
  const KCUUID iUUID = KCUUID::UUID();
  std::atomic<ConnectionDelegate*> iDelegate{nullptr};
  std::atomic<bool> iShouldCancel{false};
  std::optional<std::string> iFolder;  // entered last; of the holder's thread
};

}  // namespace ombra
