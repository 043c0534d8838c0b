// What a test's server needs to speak TLS.
#pragma once

#include "remote/tls/OpenSSLHandles.h"
#include "tests/support/TestCertificates.h"

namespace ombra {

// A context for the server's end, which shows that certificate.
SSLContextHandle serverContextWith(const TestCertificate& certificate);

}  // namespace ombra
