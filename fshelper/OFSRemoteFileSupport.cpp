#include "fshelper/OFSRemoteFileSupport.h"

#include <fmt/format.h>

#include <ctime>

#include "fshelper/OFSTracing.h"
#include "remote/QuarnKitError.h"

namespace ombra {

NSErrorRef ofs_reportedPosixError(int code, const NSErrorRef& underlying, const char* file, int line) {
  NSDictionary userInfo;
  if (underlying != nullptr) userInfo.setObject(PropertyValue(underlying), NSUnderlyingErrorKey);
  NSErrorRef error = QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, code, std::move(userInfo));
  ofs_reportError(file, line, error);
  return error;
}

NSErrorRef ofs_supersededError() {
  return NSError::errorWithDomain(NSPOSIXErrorDomain, kEEXIST,
                                  {{std::string(NSLocalizedDescriptionKey),
                                    std::string("a newer file of that name has taken its place")}});
}

std::string ofs_describeError(const NSErrorRef& error) {
  return error == nullptr ? "(null)" : error->description();
}

std::string ofs_describeDate(NSDate date) {
  const timespec moment = kc_timespec(date);
  tm parts{};
  gmtime_r(&moment.tv_sec, &parts);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

}  // namespace ombra
