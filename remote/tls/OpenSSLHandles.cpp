#include "remote/tls/OpenSSLHandles.h"

#include <openssl/err.h>

namespace ombra {

std::string takeOpenSSLError() {
  const unsigned long number = ERR_get_error();
  ERR_clear_error();
  if (number == 0) return {};
  const char* reason = ERR_reason_error_string(number);
  return reason == nullptr ? "error " + std::to_string(number) : reason;
}

}  // namespace ombra
