#include "remote/ftp/FTPLines.h"

namespace ombra {

bool FTPLines::add(std::string_view bytes, const Take& take) {
  while (true) {
    const size_t end = bytes.find('\n');
    if (end == std::string_view::npos) break;
    if (iRest.size() + end > kMaximumLine) return false;
    if (iRest.empty()) {
      if (!take(bytes.substr(0, end))) return false;
    } else {
      iRest.append(bytes.substr(0, end));
      if (!take(iRest)) return false;
      iRest.clear();
    }
    bytes.remove_prefix(end + 1);
  }
  if (iRest.size() + bytes.size() > kMaximumLine) return false;
  iRest.append(bytes);
  return true;
}

bool FTPLines::finish(const Take& take) {
  if (iRest.empty()) return true;
  const bool goesOn = take(iRest);
  iRest.clear();
  return goesOn;
}

}  // namespace ombra
