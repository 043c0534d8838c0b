// Errors of the library and the system, told to a person.
#pragma once

#include <cstdint>
#include <string>

#include "frontend/Failure.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// What was being attempted, for the wording. Anything may be empty.
struct ErrorContext {
  std::string address;
  int port = 0;
  std::string username;
  std::string path;  // the start folder
  std::string passthrough;
  std::string logName;  // the volume whose log has more
  uint32_t protocol = 0;
};

// What happened, why, and what to do, with the exit code that fits. The most telling error of the chain
// decides: the outermost of the connection library or of the mount, else the outermost of all. Null gives a
// general failure.
Failure explainError(const NSErrorRef& error, const ErrorContext& context);

// Whether the volume's place was taken already.
bool isMountPointInUse(const NSErrorRef& error);

// The code of the connection library in the chain, 0 when there is none.
int64_t libraryCode(const NSErrorRef& error);

}  // namespace ombra
