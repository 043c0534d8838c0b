// Errors as values, and the one exception of the program.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/NSDictionary.h"

namespace ombra {

inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr std::string_view NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";

// The errno values of the interface to the user-space file system: one fixed set, the same on every platform.
// Only platform/userfs translates them to the system's own (where 66 is 39 and 93 is 61).
enum InterfaceErrno : int {
  kEPERM = 1,
  kENOENT = 2,
  kEIO = 5,
  kEACCES = 13,
  kEFAULT = 14,
  kEEXIST = 17,
  kENODEV = 19,
  kENOTDIR = 20,
  kEINVAL = 22,
  kEFBIG = 27,
  kERANGE = 34,
  kENOTEMPTY = 66,
  kENOATTR = 93,
};

// Open flags of the interface; collide with Linux's (its O_APPEND is our O_TRUNC), so never mix the two.
enum InterfaceOpenFlags : int {
  kO_RDONLY = 0,
  kO_WRONLY = 1,
  kO_RDWR = 2,
  kO_ACCMODE = 3,
  kO_APPEND = 0x8,
  kO_CREAT = 0x200,
  kO_TRUNC = 0x400,
  kO_EXCL = 0x800,
};

// Extended-attribute options of the interface.
enum InterfaceXattrOptions : int { kXATTR_CREATE = 0x2, kXATTR_REPLACE = 0x4 };

// An immutable error: a domain, a code in that domain, and facts about it, among them the error that lies
// beneath. Shared by reference; an error slot is a pointer to an NSErrorRef that may be null. Success is
// judged by an operation's result alone: some operations fill a slot and succeed.
class NSError {
 public:
  NSError(std::string_view domain, int64_t code, NSDictionary userInfo = {});
  virtual ~NSError() = default;

  static NSErrorRef errorWithDomain(std::string_view domain, int64_t code, NSDictionary userInfo = {});

  const std::string& domain() const { return iDomain; }
  int64_t code() const { return iCode; }
  const NSDictionary& userInfo() const { return iUserInfo; }
  // The error under NSUnderlyingErrorKey, or null.
  NSErrorRef underlyingError() const;
  // NSLocalizedDescription when given, else the errno's text in the POSIX domain, else "domain code".
  std::string localizedDescription() const;
  // One line for logs: domain, code, description, and the errors beneath.
  std::string description() const;

 private:
  std::string iDomain;
  int64_t iCode;
  NSDictionary iUserInfo;
};

// Stores `error` in `slot` if there is a slot.
inline void storeError(NSErrorRef* slot, NSErrorRef error) {
  if (slot != nullptr) *slot = std::move(error);
}

// The only exception that the program raises: a name ("KCException") and a reason.
class KCException : public std::exception {
 public:
  explicit KCException(std::string reason) : iReason(std::move(reason)) {}
  static constexpr std::string_view name() { return "KCException"; }
  const std::string& reason() const { return iReason; }
  const char* what() const noexcept override { return iReason.c_str(); }

 private:
  std::string iReason;
};

}  // namespace ombra
