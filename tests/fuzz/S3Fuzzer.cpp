// Answers of an S3 server, whatever they are.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>

#include <cstdlib>
#include <string>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Answers.h"
#include "remote/s3/S3Download.h"
#include "remote/s3/S3Errors.h"

namespace ombra {
namespace {

class Control final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return false; }
};

// What fails has a reason, and nothing is written before the offset.
void download(FuzzedDataProvider& data) {
  NSFileHandle file(memfd_create("fuzz", MFD_CLOEXEC), NSFileHandle::Kind::kScratch);
  Control control;
  std::string version = data.ConsumeRandomLengthString(30);
  const uint64_t offset = data.ConsumeIntegralInRange<uint64_t>(0, 1000);
  S3Download download("/bucket/key", file, offset, data.ConsumeBool() ? &version : nullptr, control);
  (void)download.headers();
  HTTPResponse head;
  head.status = data.ConsumeBool() ? 200 : 206;
  for (const char* name : {"ETag", "Content-Range", "Content-Length"}) {
    if (data.ConsumeBool()) head.headers.push_back({name, data.ConsumeRandomLengthString(60)});
  }
  NSErrorRef error;
  if (data.ConsumeBool() && !S3Download::settleEnd(head, "/bucket/key", offset, &version, &error) &&
      error == nullptr)
    std::abort();
  const std::string piece = data.ConsumeRandomLengthString(200);
  const bool isTaken = download.take(head, std::as_bytes(std::span(piece.data(), piece.size())));
  if (!isTaken && download.failure() == nullptr) std::abort();
  if (!isTaken && file.fileLength() != 0) std::abort();
  if (!download.finish(head, &error) && error == nullptr) std::abort();
}

}  // namespace
}  // namespace ombra

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace ombra;
  FuzzedDataProvider data(bytes, size);
  if (data.ConsumeBool()) {
    download(data);
    return 0;
  }
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
