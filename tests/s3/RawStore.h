// A bucket without the engine's idea of folders: what is really stored.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "remote/s3/S3Client.h"

namespace ombra {

// Single requests, whose failures throw.
class RawStore {
 public:
  RawStore(std::shared_ptr<const KCCredentials> credentials, std::string bucket);

  // Makes the bucket unless it is there.
  void makeBucket();
  void put(const std::string& key, const std::string& content, std::vector<HTTPHeader> headers = {});
  std::optional<std::string> get(const std::string& key);
  // Of an object; null when there is none.
  std::optional<HTTPResponse> head(const std::string& key);
  void remove(const std::string& key);
  // All keys that begin so.
  std::vector<std::string> keys(const std::string& prefix = {});
  // Uploads that were begun and neither completed nor thrown away; absent where the server cannot tell.
  std::optional<size_t> unfinishedUploads();

 private:
  std::optional<S3Answer> perform(S3Request request);

  const std::string iBucket;
  S3Client iClient;
};

}  // namespace ombra
