#include "tests/tls/Handshake.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include "tests/support/ServerContext.h"

namespace ombra {

namespace {

SSLContextHandle contextOfServer(const HandshakeServer& server) {
  SSLContextHandle context = serverContextWith(server.certificate);
  // The library's own level would keep the versions away that a test is about.
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context.get(), server.newestVersion);
  return context;
}

bool isWaiting(SSL* end, int result) {
  const int reason = SSL_get_error(end, result);
  return reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE;
}

// Takes turns until both are done or one has given up.
void takeTurns(SSL* client, SSL* server, HandshakeResult* result) {
  bool clientWaits = true;
  bool serverWaits = true;
  for (int turn = 0; turn < 20 && (clientWaits || serverWaits); ++turn) {
    ERR_clear_error();
    const int clientResult = SSL_do_handshake(client);
    clientWaits = clientResult != 1 && isWaiting(client, clientResult);
    ERR_clear_error();
    const int serverResult = SSL_do_handshake(server);
    serverWaits = serverResult != 1 && isWaiting(server, serverResult);
    if (serverResult != 1 && !serverWaits) result->serverError = takeOpenSSLError();
    result->done = clientResult == 1 && serverResult == 1;
    if (result->done || !result->serverError.empty()) return;
  }
}

}  // namespace

HandshakeResult shakeHands(ServerTrust& trust, const HandshakeServer& server) {
  const SSLContextHandle serverContext = contextOfServer(server);
  const SSLContextHandle clientContext(SSL_CTX_new(TLS_client_method()));
  trust.installInto(clientContext.get());
  const SSLHandle serverEnd(SSL_new(serverContext.get()));
  const SSLHandle clientEnd(SSL_new(clientContext.get()));
  BIO* left = nullptr;
  BIO* right = nullptr;
  BIO_new_bio_pair(&left, 1 << 16, &right, 1 << 16);
  SSL_set_bio(clientEnd.get(), left, left);
  SSL_set_bio(serverEnd.get(), right, right);
  SSL_set_connect_state(clientEnd.get());
  SSL_set_accept_state(serverEnd.get());
  HandshakeResult result;
  takeTurns(clientEnd.get(), serverEnd.get(), &result);
  result.version = SSL_get_version(clientEnd.get());
  return result;
}

}  // namespace ombra
