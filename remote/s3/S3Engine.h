// Amazon's S3 and the many servers that speak like it.
#pragma once

#include "remote/Session.h"

namespace ombra {

// Makes the protocol 'S3  ' known. The credentials' user name is the access key (absent: everything is asked
// for as anybody), the password its secret. Options: "endpoint" (URL of scheme http or https; else https to
// the address, or Amazon's hosts where there is none), "region" (found out when absent), "pathStyle" ("1":
// the bucket in the path, "0": in the host name; absent: as the server is wont to have it), "sessionToken".
// Paths are "/bucket/key…".
void registerS3Engine();

}  // namespace ombra
