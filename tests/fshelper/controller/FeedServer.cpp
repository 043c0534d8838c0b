#include "tests/fshelper/controller/FeedServer.h"

#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "remote/tls/OpenSSLHandles.h"

namespace ombra {
namespace {

SSLContextHandle contextOf(const TestCertificate& certificate) {
  SSLContextHandle context(SSL_CTX_new(TLS_server_method()));
  const BIOHandle pem(BIO_new_mem_buf(certificate.pem.data(), -1));
  const BIOHandle keyPEM(BIO_new_mem_buf(certificate.key.data(), -1));
  const CertificateHandle shown(PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr));
  EVP_PKEY* key = PEM_read_bio_PrivateKey(keyPEM.get(), nullptr, nullptr, nullptr);
  SSL_CTX_use_certificate(context.get(), shown.get());
  SSL_CTX_use_PrivateKey(context.get(), key);
  EVP_PKEY_free(key);
  return context;
}

int listenOnLoopback(int* port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener, 8);
  socklen_t length = sizeof address;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return listener;
}

}  // namespace

FeedServer::FeedServer(TestCertificate certificate, Script script)
    : iCertificate(std::move(certificate)), iScript(std::move(script)), iListener(listenOnLoopback(&iPort)) {
  iThread = std::thread([this] { run(); });
}

FeedServer::~FeedServer() {
  {
    const MutexLock lock(iLock);
    iEnds = true;
    if (iVisitor >= 0) ::shutdown(iVisitor, SHUT_RDWR);
  }
  ::shutdown(iListener, SHUT_RDWR);
  iThread.join();
  ::close(iListener);
}

void FeedServer::run() {
  // Clients go in the middle of an answer.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  for (;;) {
    const int visitor = ::accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (visitor < 0) return;
    {
      const MutexLock lock(iLock);
      iVisitor = visitor;
      if (iEnds) ::shutdown(visitor, SHUT_RDWR);
    }
    serve(visitor);
    const MutexLock lock(iLock);
    iVisitor = -1;
    ::close(visitor);
  }
}

void FeedServer::serve(int socket) {
  const SSLContextHandle context = contextOf(iCertificate);
  const SSLHandle connection(SSL_new(context.get()));
  SSL_set_fd(connection.get(), socket);
  if (SSL_accept(connection.get()) != 1) return;
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos) {
    const int count = SSL_read(connection.get(), buffer, sizeof buffer);
    if (count <= 0) return;
    head.append(buffer, static_cast<size_t>(count));
  }
  const size_t first = head.find(' ') + 1;
  const std::string target = head.substr(first, head.find(' ', first) - first);
  bool isFirst = false;
  {
    const MutexLock lock(iLock);
    isFirst = iTargets.empty();
    iTargets.push_back(target);
  }
  if (isFirst) iArrived.set_value();
  const std::optional<Answer> answer = iScript(target);
  if (answer) SSL_write(connection.get(), answer->bytes.data(), static_cast<int>(answer->bytes.size()));
  // Until the client goes.
  if (!answer || !answer->closes) SSL_read(connection.get(), buffer, sizeof buffer);
  SSL_shutdown(connection.get());
}

std::vector<std::string> FeedServer::targets() const {
  const MutexLock lock(iLock);
  return iTargets;
}

FeedServer::Answer FeedServer::reply(int status, const std::string& body, const std::string& headers) {
  return {"HTTP/1.1 " + std::to_string(status) + " Said\r\nConnection: close\r\nContent-Length: " +
              std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body,
          true};
}

DeafPort::DeafPort() : iListener(listenOnLoopback(&iPort)) {}

DeafPort::~DeafPort() { ::close(iListener); }

}  // namespace ombra
