// The protocol engine for WebDAV, in the clear and over TLS.
#pragma once

namespace ombra {

// Registers the engine for kProtocolWebDAV and kProtocolWebDAVTLS.
void registerWebDAVEngine();

}  // namespace ombra
