#include "remote/QuarnKitError.h"

#include <array>
#include <utility>

namespace ombra {
namespace {

constexpr std::array<std::pair<QuarnKitErrorCode, std::string_view>, 24> kTexts{{
    {kQuarnKitListingNotPermitted, "The contents of the folder may not be listed"},
    {kQuarnKitNoSuchItem, "The item does not exist on the server"},
    {kQuarnKitAttributeChangeNotSupported, "The server cannot change these attributes"},
    {kQuarnKitLockFailed, "The lock is held by another process"},
    {kQuarnKitCouldNotResolveHost, "The server's name could not be found; check the address and the network"},
    {kQuarnKitCouldNotConnect,
     "The server could not be reached; check the address, the port and the network"},
    {kQuarnKitLoginFailed, "The server did not accept the login; check the user name and the password"},
    {kQuarnKitUntrusted, "The login failed because the server's key is not the one that was accepted"},
    {kQuarnKitConnectionLost, "The connection to the server was lost"},
    {kQuarnKitTimedOut, "The server did not answer in time"},
    {kQuarnKitCancelled, "The transfer was cancelled"},
    {kQuarnKitOutOfSpace, "There is no space left on the server"},
    {kQuarnKitItemExists, "An item of that name exists already on the server"},
    {kQuarnKitFolderNotEmpty, "The folder on the server is not empty"},
    {kQuarnKitPermissionDenied, "The server does not permit this to the user"},
    {kQuarnKitRefused, "The server refused the operation"},
    {kQuarnKitProtocolError, "The server's answer could not be understood"},
    {kQuarnKitTooManyConnections, "The server accepts no further connection now"},
    {kQuarnKitNotSupported, "The server has no such operation"},
    {kQuarnKitLocalFailure, "A local file could not be read or written"},
    {kQuarnKitItemChanged, "The file changed on the server during the transfer; open it again"},
    {kQuarnKitNotAFolder, "The item on the server is not a folder"},
    {kQuarnKitNameInvalid, "The server cannot store an item of that name"},
    {kQuarnKitReadOnly, "The server's file system is read-only"},
}};

}  // namespace

NSErrorRef QuarnKitError::errorWithDomain(std::string_view domain, int64_t code, NSDictionary userInfo) {
  return std::make_shared<const QuarnKitError>(domain, code, std::move(userInfo));
}

NSErrorRef QuarnKitError::errorWithCode(QuarnKitErrorCode code, std::string_view detail,
                                        NSErrorRef underlying) {
  std::string text(textForCode(code));
  if (!detail.empty()) text.append(": ").append(detail);
  NSDictionary userInfo{{std::string(NSLocalizedDescriptionKey), PropertyValue(std::move(text))}};
  if (underlying != nullptr) userInfo.setObject(std::move(underlying), NSUnderlyingErrorKey);
  return errorWithDomain(kQuarnKitErrorDomain, code, std::move(userInfo));
}

NSErrorRef QuarnKitError::quarnKitErrorWithError(const NSErrorRef& error) {
  if (error == nullptr || dynamic_cast<const QuarnKitError*>(error.get()) != nullptr) return error;
  return errorWithDomain(error->domain(), error->code(), error->userInfo());
}

std::string_view QuarnKitError::textForCode(QuarnKitErrorCode code) {
  for (const auto& [known, text] : kTexts) {
    if (known == code) return text;
  }
  return "The operation failed on the server";
}

bool QuarnKitError::isCode(const NSErrorRef& error, QuarnKitErrorCode code) {
  return error != nullptr && error->code() == code && error->domain() == kQuarnKitErrorDomain;
}

}  // namespace ombra
