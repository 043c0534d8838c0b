#include "remote/local/LocalErrors.h"

#include <cerrno>

namespace ombra {
namespace {

QuarnKitErrorCode codeForErrno(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
      return kQuarnKitNoSuchItem;
    case ENOTDIR:
      return kQuarnKitNotAFolder;
    case EACCES:
    case EPERM:
      return kQuarnKitPermissionDenied;
    case EEXIST:
      return kQuarnKitItemExists;
    case ENOTEMPTY:
      return kQuarnKitFolderNotEmpty;
    case ENOSPC:
    case EDQUOT:
      return kQuarnKitOutOfSpace;
    case EROFS:
      return kQuarnKitReadOnly;
    case ENAMETOOLONG:
    case EILSEQ:
      return kQuarnKitNameInvalid;
    case EOPNOTSUPP:
      return kQuarnKitNotSupported;
    default:
      return kQuarnKitRefused;
  }
}

}  // namespace

NSErrorRef localServerError(int errorNumber, std::string_view path) {
  return QuarnKitError::errorWithCode(codeForErrno(errorNumber), path,
                                      NSError::errorWithDomain(NSPOSIXErrorDomain, errorNumber));
}

NSErrorRef localAttributeError(int errorNumber, std::string_view path) {
  if (errorNumber != EOPNOTSUPP) return localServerError(errorNumber, path);
  return QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path,
                                      NSError::errorWithDomain(NSPOSIXErrorDomain, errorNumber));
}

NSErrorRef localFileError(int errorNumber) {
  return QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {},
                                      NSError::errorWithDomain(NSPOSIXErrorDomain, errorNumber));
}

}  // namespace ombra
