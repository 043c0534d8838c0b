// The documents that a server answers with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

// Each reader takes a whole body and is absent where it is no document of that kind, or has a document type.
// Prefixes of names are ignored; entities other than XML's own five are left as they stand.

struct S3Bucket {
  std::string name;
  std::optional<NSDate> creationDate;
};
std::optional<std::vector<S3Bucket>> s3Buckets(std::string_view document);

struct S3ListedObject {
  std::string key;
  uint64_t size = 0;
  std::optional<NSDate> modificationDate;
};
// One page of a listing.
struct S3Listing {
  std::vector<S3ListedObject> objects;
  std::vector<std::string> prefixes;  // common to several keys, with the delimiter at the end
  bool isTruncated = false;
  std::string nextToken;  // never empty when truncated
};
std::optional<S3Listing> s3Listing(std::string_view document);

// The identifier of a multipart upload that was begun.
std::optional<std::string> s3UploadId(std::string_view document);
// The tag of a part, or of an object, that was copied.
std::optional<std::string> s3CopiedTag(std::string_view document);
// Whether it says that a multipart upload has become an object.
bool s3IsCompleted(std::string_view document);
// What could not be removed of many: how many, and the first one's code.
struct S3DeleteResult {
  size_t failures = 0;
  std::string firstCode;
  std::string firstMessage;
};
std::optional<S3DeleteResult> s3DeleteResult(std::string_view document);

// An answer that is a refusal.
struct S3Refusal {
  int status = 0;
  std::string code;     // empty where the server gives none, as to HEAD
  std::string message;  // may be empty
  std::string region;   // where the bucket lies, when the server says so
};
S3Refusal s3Refusal(const HTTPResponse& response);
// A refusal in an answer that began as a success; absent when it is none.
std::optional<S3Refusal> s3LateRefusal(const HTTPResponse& response);

}  // namespace ombra
