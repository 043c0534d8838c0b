// The system's error numbers as library errors.
#pragma once

#include <string_view>

#include "remote/QuarnKitError.h"

namespace ombra {

// What went wrong on the "server": `errorNumber` is one of this system's errno values and lies beneath.
NSErrorRef localServerError(int errorNumber, std::string_view path);
// The same for a change of attributes: where the file system has none of that kind, code 17.
NSErrorRef localAttributeError(int errorNumber, std::string_view path);
// What went wrong with the caller's own file.
NSErrorRef localFileError(int errorNumber);

}  // namespace ombra
