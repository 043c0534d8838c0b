#include "remote/s3/S3Errors.h"

#include <array>
#include <string>
#include <utility>

namespace ombra {
namespace {

constexpr std::array<std::pair<std::string_view, QuarnKitErrorCode>, 34> kCodes{{
    {"NoSuchKey", kQuarnKitNoSuchItem},
    {"NoSuchBucket", kQuarnKitNoSuchItem},
    {"NoSuchVersion", kQuarnKitNoSuchItem},
    {"InvalidBucketName", kQuarnKitNoSuchItem},
    {"InvalidAccessKeyId", kQuarnKitLoginFailed},
    {"SignatureDoesNotMatch", kQuarnKitLoginFailed},
    {"AuthorizationHeaderMalformed", kQuarnKitLoginFailed},
    {"InvalidSecurity", kQuarnKitLoginFailed},
    {"InvalidToken", kQuarnKitLoginFailed},
    {"ExpiredToken", kQuarnKitLoginFailed},
    {"TokenRefreshRequired", kQuarnKitLoginFailed},
    {"RequestTimeTooSkewed", kQuarnKitLoginFailed},
    {"RequestExpired", kQuarnKitLoginFailed},
    {"NotSignedUp", kQuarnKitLoginFailed},
    {"AccountProblem", kQuarnKitLoginFailed},
    {"AccessDenied", kQuarnKitPermissionDenied},
    {"AllAccessDisabled", kQuarnKitPermissionDenied},
    {"InvalidObjectState", kQuarnKitPermissionDenied},
    {"MethodNotAllowed", kQuarnKitNotSupported},
    {"NotImplemented", kQuarnKitNotSupported},
    {"KeyTooLongError", kQuarnKitNameInvalid},
    {"InvalidURI", kQuarnKitNameInvalid},
    {"InvalidObjectName", kQuarnKitNameInvalid},
    {"QuotaExceeded", kQuarnKitOutOfSpace},
    {"InsufficientStorage", kQuarnKitOutOfSpace},
    {"InsufficientCapacity", kQuarnKitOutOfSpace},
    {"EntityTooLarge", kQuarnKitOutOfSpace},
    {"PreconditionFailed", kQuarnKitItemChanged},
    {"SlowDown", kQuarnKitTooManyConnections},
    {"ServiceUnavailable", kQuarnKitTooManyConnections},
    {"TooManyRequests", kQuarnKitTooManyConnections},
    {"ReadOnly", kQuarnKitReadOnly},
    {"BucketAlreadyExists", kQuarnKitItemExists},
    {"BucketAlreadyOwnedByYou", kQuarnKitItemExists},
}};

QuarnKitErrorCode codeForStatus(int status) {
  switch (status) {
    case 401:
      return kQuarnKitLoginFailed;
    case 403:
      return kQuarnKitPermissionDenied;
    case 404:
      return kQuarnKitNoSuchItem;
    case 405:
    case 501:
      return kQuarnKitNotSupported;
    case 412:
      return kQuarnKitItemChanged;
    case 429:
    case 503:
      return kQuarnKitTooManyConnections;
    case 507:
      return kQuarnKitOutOfSpace;
    default:
      return kQuarnKitRefused;
  }
}

QuarnKitErrorCode codeFor(const S3Refusal& refusal) {
  for (const auto& [name, code] : kCodes) {
    if (refusal.code == name) return code;
  }
  return codeForStatus(refusal.status);
}

std::string detailOf(const S3Refusal& refusal, std::string_view path) {
  std::string detail(path);
  if (!detail.empty()) detail += ": ";
  detail += refusal.code.empty() ? "the server answers " + std::to_string(refusal.status) : refusal.code;
  // Some servers leave the words out.
  if (!refusal.message.empty()) detail += " (" + refusal.message + ")";
  return detail;
}

}  // namespace

NSErrorRef s3Error(const S3Refusal& refusal, std::string_view path) {
  return QuarnKitError::errorWithCode(codeFor(refusal), detailOf(refusal, path));
}

NSErrorRef s3ListingError(const S3Refusal& refusal, std::string_view path) {
  const QuarnKitErrorCode code = codeFor(refusal);
  return QuarnKitError::errorWithCode(code == kQuarnKitPermissionDenied ? kQuarnKitListingNotPermitted : code,
                                      detailOf(refusal, path));
}

bool s3IsTransient(const S3Refusal& refusal) {
  if (refusal.code == "NotImplemented") return false;
  return refusal.status == 500 || refusal.status == 502 || refusal.status == 503 || refusal.status == 504 ||
         refusal.status == 429 || refusal.code == "RequestTimeout" || refusal.code == "SlowDown" ||
         refusal.code == "InternalError" || refusal.code == "ServiceUnavailable" ||
         refusal.code == "OperationAborted";
}

bool s3IsLoginFailure(const S3Refusal& refusal) { return codeFor(refusal) == kQuarnKitLoginFailed; }

}  // namespace ombra
