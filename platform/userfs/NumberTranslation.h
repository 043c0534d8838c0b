// Translates the numbers of the delegate's interface to and from this system's. Nothing else in the tree
// does.
#pragma once

#include "platform/foundation/NSError.h"

namespace ombra {

// The system's errno for one of the interface. Numbers up to 34 are the same on both sides; 66 and 93 differ;
// any other is not of the interface and counts as EIO.
int systemErrno(int interfaceErrno);
// The interface's number for an errno of the system; kEIO for one that the interface has no number for.
int interfaceErrnoForSystemErrno(int systemErrno);
// The system's errno that a failed operation answers: EIO for no error, and for one of another domain.
int systemErrnoOfError(const NSErrorRef& error);

// Open flags of the system as the delegate is told them: access mode, append, truncate, create, exclusive.
int interfaceOpenFlags(int systemFlags);
// The reverse, of the same five.
int systemOpenFlags(int interfaceFlags);

// Options of setxattr(2) as the delegate is told them.
int interfaceXattrOptions(int systemFlags);

}  // namespace ombra
