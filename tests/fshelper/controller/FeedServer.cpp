#include "tests/fshelper/controller/FeedServer.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/Loopback.h"
#include "tests/support/ServerContext.h"

namespace ombra {

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
  const SSLContextHandle context = serverContextWith(iCertificate);
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
