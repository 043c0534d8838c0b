// A server's answers to PROPFIND, and what is made of them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/http/HTTPLengths.h"
#include "remote/webdav/DAVContent.h"
#include "remote/webdav/DAVErrors.h"
#include "remote/webdav/DAVListing.h"
#include "remote/webdav/DAVMultistatus.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

ombra::DAVListing listingIn(const std::vector<ombra::DAVResponse>& responses, std::string_view path) {
  ombra::DAVListingBuilder builder(path);
  for (const ombra::DAVResponse& response : responses) builder.add(response);
  return builder.finish();
}

void checkListing(const std::vector<ombra::DAVResponse>& responses, std::string_view path) {
  const ombra::DAVListing listing = listingIn(responses, path);
  require(listing.children.size() + (listing.hasSelf ? 1 : 0) <= responses.size());
  require(listing.children.empty() || listing.holdsItems);
  for (const ombra::RemoteEntry& entry : listing.children)
    require(ombra::isShownName(entry.name) && !ombra::isTemporaryName(entry.name));
}

// A document is the same however it is cut.
void checkPieces(std::string_view document, size_t length, const std::vector<ombra::DAVResponse>* responses) {
  size_t count = 0;
  bool isSame = true;
  ombra::DAVMultistatusReader reader([&](const ombra::DAVResponse& response) {
    isSame = isSame && (responses == nullptr ||
                        (count < responses->size() && (*responses)[count].href == response.href));
    ++count;
  });
  for (size_t at = 0; at < document.size(); at += length) reader.add(document.substr(at, length));
  require(reader.finish() == (responses != nullptr));
  require(responses == nullptr || (isSame && count == responses->size()));
}

void checkContent(std::string_view text) {
  if (const auto range = ombra::HTTPContentRange::parse(text)) {
    require(range->first.has_value() == range->last.has_value());
    require(!range->first || *range->first <= *range->last);
  }
  const ombra::DAVVersion version = ombra::DAVVersion::fromText(text);
  require(version.agreesWith(version));
  ombra::HTTPResponse response;
  response.status = 404;
  response.body = text;
  require(ombra::davError(ombra::DAVRequestKind::kList, response, "/")->code() == 14);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkContent(text);
  std::string reason;
  for (const std::string& document :
       {text, "<D:multistatus xmlns:D=\"DAV:\"><D:response>" + text + "</D:response></D:multistatus>"}) {
    const auto responses = ombra::parseDAVMultistatus(document, &reason);
    require(responses.has_value() || !reason.empty());
    checkPieces(document, 1 + size % 40, responses ? &*responses : nullptr);
    if (!responses) continue;
    checkListing(*responses, "/dav");
    checkListing(*responses, "/");
  }
  return 0;
}
