// Answers of an S3 server, whatever they are.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Answers.h"
#include "remote/s3/S3Errors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace ombra;
  FuzzedDataProvider data(bytes, size);
  HTTPResponse response;
  response.status = data.ConsumeIntegralInRange<int>(100, 599);
  if (data.ConsumeBool()) response.headers = {{"x-amz-bucket-region", data.ConsumeRandomLengthString(100)}};
  response.body = data.ConsumeRemainingBytesAsString();
  if (const auto listing = s3Listing(response.body)) {
    if (listing->isTruncated && listing->nextToken.empty()) std::abort();
    for (const S3ListedObject& object : listing->objects) {
      if (object.key.empty() || object.size > INT64_MAX) std::abort();
    }
  }
  if (const auto buckets = s3Buckets(response.body)) {
    for (const S3Bucket& bucket : *buckets) {
      if (bucket.name.empty()) std::abort();
    }
  }
  (void)s3UploadId(response.body);
  (void)s3CopiedTag(response.body);
  (void)s3IsCompleted(response.body);
  (void)s3DeleteResult(response.body);
  (void)s3LateRefusal(response);
  if (s3Error(s3Refusal(response), "/bucket/key") == nullptr) std::abort();
  return 0;
}
