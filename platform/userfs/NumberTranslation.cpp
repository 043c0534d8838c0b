#include "platform/userfs/NumberTranslation.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <cerrno>

namespace ombra {

namespace {

// Every word is built from zero out of these pairs: bits that one side does not know must not leak through,
// since this system's O_APPEND is the interface's O_TRUNC, and its O_TRUNC the interface's O_CREAT.
struct FlagPair {
  int system;
  int interface;
};

constexpr FlagPair kOpenFlags[] = {
    {O_APPEND, kO_APPEND}, {O_CREAT, kO_CREAT}, {O_TRUNC, kO_TRUNC}, {O_EXCL, kO_EXCL}};
constexpr FlagPair kXattrOptions[] = {{::XATTR_CREATE, kXATTR_CREATE}, {::XATTR_REPLACE, kXATTR_REPLACE}};

// The numbers below and at this one were common before the systems went separate ways.
constexpr int kLastCommonErrno = 34;

}  // namespace

int systemErrno(int number) {
  if (number == kENOTEMPTY) return ENOTEMPTY;
  if (number == kENOATTR) return ENODATA;
  if (number < 1 || number > kLastCommonErrno) return EIO;
  return number;
}

int interfaceErrnoForSystemErrno(int number) {
  if (number == ENOTEMPTY) return kENOTEMPTY;
  if (number == ENODATA) return kENOATTR;
  if (number < 1 || number > kLastCommonErrno) return kEIO;
  return number;
}

int systemErrnoOfError(const NSErrorRef& error) {
  if (error == nullptr || error->domain() != NSPOSIXErrorDomain) return EIO;
  const int64_t code = error->code();
  if (code < 1 || code > kENOATTR) return EIO;
  return systemErrno(static_cast<int>(code));
}

int interfaceOpenFlags(int systemFlags) {
  int flags = kO_RDONLY;
  if ((systemFlags & O_ACCMODE) == O_WRONLY) flags = kO_WRONLY;
  if ((systemFlags & O_ACCMODE) == O_RDWR) flags = kO_RDWR;
  for (const FlagPair& pair : kOpenFlags) {
    if ((systemFlags & pair.system) != 0) flags |= pair.interface;
  }
  return flags;
}

int systemOpenFlags(int interfaceFlags) {
  int flags = O_RDONLY;
  if ((interfaceFlags & kO_ACCMODE) == kO_WRONLY) flags = O_WRONLY;
  if ((interfaceFlags & kO_ACCMODE) == kO_RDWR) flags = O_RDWR;
  for (const FlagPair& pair : kOpenFlags) {
    if ((interfaceFlags & pair.interface) != 0) flags |= pair.system;
  }
  return flags;
}

int interfaceXattrOptions(int systemFlags) {
  int options = 0;
  for (const FlagPair& pair : kXattrOptions) {
    if ((systemFlags & pair.system) != 0) options |= pair.interface;
  }
  return options;
}

}  // namespace ombra
