// A server's answers to PROPFIND, and what is made of them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

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

void checkListing(std::vector<ombra::DAVResponse> responses, std::string_view path) {
  const size_t count = responses.size();
  const ombra::DAVListing listing = ombra::listingOfDAVResponses(std::move(responses), path);
  require(listing.children.size() + (listing.hasSelf ? 1 : 0) <= count);
  require(listing.children.empty() || listing.holdsItems);
  for (const ombra::RemoteEntry& entry : listing.children)
    require(ombra::isShownName(entry.name) && !ombra::isTemporaryName(entry.name));
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
    auto responses = ombra::parseDAVMultistatus(document, &reason);
    require(responses.has_value() || !reason.empty());
    if (!responses) continue;
    checkListing(*responses, "/dav");
    checkListing(*std::move(responses), "/");
  }
  return 0;
}
