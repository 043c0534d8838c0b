// The listings of WebDAV and S3 servers.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>

#include "bench/micro/Require.h"
#include "remote/s3/S3Answers.h"
#include "remote/webdav/DAVListing.h"

namespace ombra {
namespace {

constexpr size_t kEntries = 1000;

// As Apache writes it.
std::string multistatus() {
  std::string document =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\" xmlns:ns0=\"DAV:\">\n";
  for (size_t i = 0; i <= kEntries; ++i) {
    const bool isFolder = i == 0;
    document += fmt::format(
        "<D:response xmlns:lp1=\"DAV:\" xmlns:lp2=\"http://apache.org/dav/props/\" xmlns:g0=\"DAV:\">\n"
        "<D:href>/dav/{}</D:href>\n<D:propstat>\n<D:prop>\n<lp1:resourcetype>{}</lp1:resourcetype>\n"
        "<lp1:creationdate>2026-11-21T10:00:00Z</lp1:creationdate>\n"
        "<lp1:getlastmodified>Sat, 21 Nov 2026 10:00:00 GMT</lp1:getlastmodified>\n"
        "<lp1:getcontentlength>{}</lp1:getcontentlength>\n</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n"
        "</D:propstat>\n</D:response>\n",
        isFolder ? "" : fmt::format("Photograph%20{:04}.jpeg", i), isFolder ? "<D:collection/>" : "", i);
  }
  return document + "</D:multistatus>\n";
}

// As it comes over the network.
void parsePropfind(benchmark::State& state) {
  constexpr size_t kPiece = 128 * 1024;
  const std::string document = multistatus();
  for ([[maybe_unused]] auto _ : state) {
    DAVListingReader reader("/dav/");
    for (std::string_view rest = document; !rest.empty(); rest.remove_prefix(std::min(kPiece, rest.size())))
      require(reader.add(rest.substr(0, kPiece)), "the document is too long");
    std::string reason;
    const auto listing = reader.finish(&reason);
    require(listing && listing->hasSelf && listing->children.size() == kEntries, "entries are missing");
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kEntries));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}
BENCHMARK(parsePropfind);

std::string listBucketResult() {
  std::string document =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ListBucketResult "
      "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
      "<Name>photos</Name><Prefix>2026/</Prefix><Delimiter>/</Delimiter><MaxKeys>1000</MaxKeys>"
      "<IsTruncated>true</IsTruncated><NextContinuationToken>bmV4dA==</NextContinuationToken>";
  for (size_t i = 0; i < kEntries; ++i) {
    document += fmt::format(
        "<Contents><Key>2026/Photograph {:04}.jpeg</Key><LastModified>2026-11-21T10:00:00.000Z</LastModified>"
        "<ETag>&quot;d41d8cd98f00b204e9800998ecf8427e&quot;</ETag><Size>{}</Size><StorageClass>STANDARD</"
        "StorageClass>"
        "</Contents>",
        i, i);
  }
  return document + "</ListBucketResult>";
}

void parseListObjects(benchmark::State& state) {
  const std::string document = listBucketResult();
  for ([[maybe_unused]] auto _ : state) {
    const auto listing = s3Listing(document);
    require(listing && listing->isTruncated && listing->objects.size() == kEntries, "entries are missing");
    benchmark::DoNotOptimize(listing->objects.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kEntries));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}
BENCHMARK(parseListObjects);

}  // namespace
}  // namespace ombra
