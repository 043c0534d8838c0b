// An object that is made from parts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "remote/s3/S3Client.h"
#include "remote/s3/S3Path.h"

namespace ombra {

// begin → any number of parts → complete. The object appears, or is replaced, with the last step alone. What
// was sent is thrown away by the destructor unless that step succeeded, also when the session has been
// interrupted: parts that are left behind are invisible and cost money. A step that fails is false, or
// absent, with the error; a part may be sent again. `control` may be null.
class S3MultipartUpload {
 public:
  S3MultipartUpload(S3Client& client, S3Path path, std::string key);
  ~S3MultipartUpload();
  S3MultipartUpload(const S3MultipartUpload&) = delete;
  S3MultipartUpload& operator=(const S3MultipartUpload&) = delete;

  // With what the object is to have besides its content.
  [[nodiscard]] bool begin(std::vector<HTTPHeader> headers, TransferControl* control, NSErrorRef* error);
  // The next part. `hash` may be empty where bodies are not signed.
  [[nodiscard]] bool sendPart(HTTPBody body, std::string hash, TransferControl* control, NSErrorRef* error);
  // A part of any number from 1 on, which may travel over another client, on another thread than others that
  // are under way. Answers its tag, with which `addPart` takes it, in any order.
  [[nodiscard]] std::optional<std::string> sendPart(S3Client& client, uint32_t number, HTTPBody body,
                                                    std::string hash, TransferControl* control,
                                                    NSErrorRef* error) const;
  void addPart(uint32_t number, std::string tag);
  // The next part, from another object on the server: `source` is "/bucket/key", percent-encoded.
  [[nodiscard]] bool copyPart(const std::string& source, const std::string& sourceTag, FileExtent range,
                              NSErrorRef* error);
  // Makes the object of the parts that are known. True as well when that had happened and its answer was
  // lost.
  [[nodiscard]] bool complete(TransferControl* control, NSErrorRef* error);

 private:
  uint32_t nextNumber() const { return static_cast<uint32_t>(iTags.size()) + 1; }
  S3Request request(std::string method) const;
  static bool hasTag(const std::string* tag, NSErrorRef* error);
  bool wasCompleted(TransferControl* control);
  void abandon();

  S3Client& iClient;
  const S3Path iPath;
  const std::string iKey;
  std::string iUploadId;           // empty when nothing is under way
  std::vector<std::string> iTags;  // of all parts
};

}  // namespace ombra
