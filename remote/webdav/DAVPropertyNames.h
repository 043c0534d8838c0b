// The bodies of PROPFIND.
#pragma once

#include <string_view>

#include "remote/webdav/DAVErrors.h"

namespace ombra {

// Asks for the few properties that are used: servers take long over those that they have to compute.
constexpr std::string_view davPropertyRequest(DAVRequestKind kind) {
  if (kind == DAVRequestKind::kQuota) {
    return R"(<?xml version="1.0" encoding="utf-8"?>)"
           R"(<D:propfind xmlns:D="DAV:"><D:prop><D:resourcetype/><D:quota-available-bytes/>)"
           R"(<D:quota-used-bytes/></D:prop></D:propfind>)";
  }
  if (kind == DAVRequestKind::kLogin || kind == DAVRequestKind::kRemove) {
    return R"(<?xml version="1.0" encoding="utf-8"?>)"
           R"(<D:propfind xmlns:D="DAV:"><D:prop><D:resourcetype/></D:prop></D:propfind>)";
  }
  return R"(<?xml version="1.0" encoding="utf-8"?>)"
         R"(<D:propfind xmlns:D="DAV:"><D:prop><D:resourcetype/><D:getcontentlength/>)"
         R"(<D:getlastmodified/><D:creationdate/></D:prop></D:propfind>)";
}

}  // namespace ombra
