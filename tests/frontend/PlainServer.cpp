#include "tests/frontend/PlainServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/Loopback.h"
#include "tests/support/ServerContext.h"

namespace ombra {

PlainServer::PlainServer(Talk talk) : iTalk(std::move(talk)), iListener(listenOnLoopback(&iPort)) {
  iThread = std::thread([this] { run(); });
}

PlainServer::~PlainServer() {
  // Ends the wait for the next visitor.
  shutdown(iListener.get(), SHUT_RDWR);
  iThread.join();
}

void PlainServer::run() {
  while (true) {
    const UniqueFd visitor(accept4(iListener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!visitor) return;
    iTalk(visitor.get());
  }
}

std::string readLineOf(int socket) {
  std::string line;
  for (char c = 0; recv(socket, &c, 1, 0) == 1 && c != '\n';) {
    if (c != '\r') line += c;
  }
  return line;
}

void sayTo(int socket, const std::string& text) { send(socket, text.data(), text.size(), MSG_NOSIGNAL); }

void serveTLS(int socket, const TestCertificate& certificate, std::string* name, std::string* sent) {
  const SSLContextHandle context = serverContextWith(certificate);
  const SSLHandle connection(SSL_new(context.get()));
  SSL_set_fd(connection.get(), socket);
  if (SSL_accept(connection.get()) != 1) return;
  const char* asked = SSL_get_servername(connection.get(), TLSEXT_NAMETYPE_host_name);
  if (name != nullptr) *name = asked == nullptr ? "" : asked;
  char buffer[1024];
  for (int count = 0; (count = SSL_read(connection.get(), buffer, sizeof(buffer))) > 0;) {
    if (sent != nullptr) sent->append(buffer, static_cast<size_t>(count));
  }
}

}  // namespace ombra
