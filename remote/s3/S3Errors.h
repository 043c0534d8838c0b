// A server's refusals in the library's words.
#pragma once

#include <string_view>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Answers.h"

namespace ombra {

// What stands for a refusal of something done to `path`; the server's own code and words are in the text.
NSErrorRef s3Error(const S3Refusal& refusal, std::string_view path);
// The same for a listing, where "not permitted" has a code of its own.
NSErrorRef s3ListingError(const S3Refusal& refusal, std::string_view path);
// Whether the server may take the same request a moment later.
bool s3IsTransient(const S3Refusal& refusal);
// Whether it is the key, the secret or the token that is refused, and not a right to something.
bool s3IsLoginFailure(const S3Refusal& refusal);
inline bool s3IsMissing(const S3Refusal& refusal) { return refusal.status == 404; }

}  // namespace ombra
