#include "remote/ftp/FTPStream.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ombra {

FTPStream::~FTPStream() {
  // Without a farewell the library would take the session for a bad one, which nothing may resume any more.
  if (iTLS != nullptr) SSL_set_shutdown(iTLS.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
  iTLS.reset();
  close(iSocket);
}

void FTPStream::encrypt(SSLHandle tls) { iTLS = std::move(tls); }

FTPStream::Outcome FTPStream::fail(int errorNumber) {
  if (errorNumber == EAGAIN || errorNumber == EWOULDBLOCK) return Outcome::kWait;
  iProblem = std::strerror(errorNumber);
  return Outcome::kFailed;
}

FTPStream::Outcome FTPStream::outcomeOfTLS(int result) {
  const int systemError = errno;
  switch (SSL_get_error(iTLS.get(), result)) {
    case SSL_ERROR_WANT_READ:
      iEvents = POLLIN;
      return Outcome::kWait;
    case SSL_ERROR_WANT_WRITE:
      iEvents = POLLOUT;
      return Outcome::kWait;
    case SSL_ERROR_ZERO_RETURN:
      return Outcome::kEnd;
    case SSL_ERROR_SYSCALL:
      iIsBroken = true;
      if (ERR_peek_error() == 0) {
        iProblem = systemError != 0 ? std::strerror(systemError) : "the connection was closed";
        return Outcome::kFailed;
      }
      break;
    default:
      iIsBroken = true;
      // Many servers close without a word; whoever reads decides what that means.
      if (ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        ERR_clear_error();
        iProblem = "the connection was closed";
        return Outcome::kEnd;
      }
  }
  iProblem = takeOpenSSLError();
  return Outcome::kFailed;
}

FTPStream::Outcome FTPStream::handshake() {
  ERR_clear_error();
  errno = 0;
  const int result = SSL_do_handshake(iTLS.get());
  if (result == 1) return Outcome::kDone;
  const Outcome outcome = outcomeOfTLS(result);
  return outcome == Outcome::kEnd ? Outcome::kFailed : outcome;
}

FTPStream::Outcome FTPStream::receive(void* buffer, size_t capacity, size_t* count) {
  *count = 0;
  if (iTLS != nullptr) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_read_ex(iTLS.get(), buffer, capacity, count);
    return result == 1 ? Outcome::kDone : outcomeOfTLS(result);
  }
  ssize_t received = -1;
  do {
    received = recv(iSocket, buffer, capacity, 0);
  } while (received < 0 && errno == EINTR);
  iEvents = POLLIN;
  if (received < 0) return fail(errno);
  *count = static_cast<size_t>(received);
  return received > 0 ? Outcome::kDone : Outcome::kEnd;
}

FTPStream::Outcome FTPStream::send(const void* bytes, size_t length, size_t* count) {
  *count = 0;
  if (length == 0) return Outcome::kDone;
  if (iTLS != nullptr) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_write_ex(iTLS.get(), bytes, length, count);
    if (result == 1) return Outcome::kDone;
    const Outcome outcome = outcomeOfTLS(result);
    return outcome == Outcome::kEnd ? Outcome::kFailed : outcome;
  }
  ssize_t sent = -1;
  do {
    sent = ::send(iSocket, bytes, length, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  iEvents = POLLOUT;
  if (sent < 0) return fail(errno);
  *count = static_cast<size_t>(sent);
  return Outcome::kDone;
}

FTPStream::Outcome FTPStream::endSending() {
  if (iTLS != nullptr && !iIsBroken) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_shutdown(iTLS.get());
    // 0: ours is sent, and theirs need not be waited for.
    if (result < 0) {
      const Outcome outcome = outcomeOfTLS(result);
      if (outcome == Outcome::kWait) return outcome;
    }
  }
  ::shutdown(iSocket, SHUT_WR);
  return Outcome::kDone;
}

void FTPStream::breakOff() {
  const linger atOnce{1, 0};
  setsockopt(iSocket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
}

}  // namespace ombra
