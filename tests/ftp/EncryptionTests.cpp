// What an encrypted session does not put up with.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/ftp/FTPSessionFixture.h"
#include "tests/support/Loopback.h"
#include "tests/support/ServerContext.h"

namespace ombra {
namespace {

// Serves one session, encrypted from the first byte on. Every file holds "content".
class EncryptedServer {
 public:
  EncryptedServer(const TestCertificate& shown, const TestCertificate& shownForData, std::string protection)
      : iFingerprint(shown.fingerprint),
        iContext(serverContextWith(shown)),
        iDataContext(serverContextWith(shownForData)),
        iProtection(std::move(protection)) {
    // A peer that goes away while TLS is written to it must not end the tests.
    signal(SIGPIPE, SIG_IGN);
    iThread = std::thread([this] { serve(); });
  }
  ~EncryptedServer() {
    for (const int socket : {iListener, iDataListener, iVisitor.load()}) shutdown(socket, SHUT_RDWR);
    iThread.join();
    for (const int socket : {iListener, iDataListener, iVisitor.load()}) close(socket);
  }
  EncryptedServer(const EncryptedServer&) = delete;
  EncryptedServer& operator=(const EncryptedServer&) = delete;

  std::shared_ptr<KCCredentials> credentials() const {
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolFTPImplicitTLS);
    credentials->setAddress("127.0.0.1");
    credentials->setPort(iPort);
    credentials->setUsername("someone");
    credentials->setPassword("sesame-4711");
    credentials->setOption("fingerprint", iFingerprint);
    return credentials;
  }

 private:
  static SSLHandle welcome(const SSLContextHandle& context, int socket) {
    SSLHandle line(SSL_new(context.get()));
    SSL_set_fd(line.get(), socket);
    return SSL_accept(line.get()) == 1 ? std::move(line) : nullptr;
  }
  static void say(SSL* line, const std::string& text) {
    const std::string reply = text + "\r\n";
    SSL_write(line, reply.data(), static_cast<int>(reply.size()));
  }

  void serve() {
    iVisitor = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    const SSLHandle line = iVisitor < 0 ? nullptr : welcome(iContext, iVisitor);
    if (line == nullptr) return;
    say(line.get(), "220 ready");
    std::string unread;
    char buffer[1024];
    for (int count = 0; (count = SSL_read(line.get(), buffer, sizeof buffer)) > 0;) {
      unread.append(buffer, static_cast<size_t>(count));
      for (size_t end = 0; (end = unread.find("\r\n")) != std::string::npos; unread.erase(0, end + 2))
        obey(line.get(), unread.substr(0, end));
    }
  }

  void obey(SSL* line, const std::string& command) {
    if (command.starts_with("USER ")) return say(line, "331 password, please");
    if (command.starts_with("PASS ")) return say(line, "230 welcome");
    if (command.starts_with("PROT ")) return say(line, iProtection);
    if (command == "FEAT") return say(line, "500 what?");
    if (command == "PWD") return say(line, "257 \"/\" is current");
    if (command == "EPSV") return say(line, "229 here (|||" + std::to_string(iDataPort) + "|)");
    if (command.starts_with("SIZE ")) return say(line, "213 7");
    if (command.starts_with("RETR ")) return give(line);
    say(line, "200 fine");
  }

  void give(SSL* line) {
    say(line, "150 here it comes");
    const int socket = accept4(iDataListener, nullptr, nullptr, SOCK_CLOEXEC);
    SSLHandle data = socket < 0 ? nullptr : welcome(iDataContext, socket);
    const bool isWelcome = data != nullptr;
    if (isWelcome) {
      SSL_write(data.get(), "content", 7);
      SSL_shutdown(data.get());
    }
    data.reset();
    close(socket);
    say(line, isWelcome ? "226 all of it" : "425 no data connection");
  }

  const std::string iFingerprint;
  const SSLContextHandle iContext;
  const SSLContextHandle iDataContext;
  const std::string iProtection;
  int iPort = 0;
  int iDataPort = 0;
  const int iListener = listenOnLoopback(&iPort);
  const int iDataListener = listenOnLoopback(&iDataPort);
  std::atomic<int> iVisitor{-1};
  std::thread iThread;
};

class FTPEncryptedSessions : public FTPSessionTest {
 protected:
  const TestCertificate iCertificate = makeLocalhostCertificate();
};

TEST_F(FTPEncryptedSessions, AServerThatDoesNotProtectWhatIsTransferredIsNotUsed) {
  for (const char* refusal : {"536 in the clear alone", "502 what?", "431 not now"}) {
    const EncryptedServer encrypted(iCertificate, iCertificate, refusal);
    prepare(encrypted.credentials());
    EXPECT_EQ(newSession(), nullptr) << refusal;
    EXPECT_TRUE(failedWith(kQuarnKitNotSupported)) << refusal;
  }
}

TEST_F(FTPEncryptedSessions, DataAreTakenFromNobodyButTheServerOfTheSession) {
  for (const bool isTheServer : {true, false}) {
    const EncryptedServer encrypted(iCertificate, isTheServer ? iCertificate : makeLocalhostCertificate(),
                                    "200 private");
    prepare(encrypted.credentials());
    session = newSession();
    ASSERT_NE(session, nullptr) << error->description();
    version.clear();
    control.reached.clear();
    const auto content = download("/file");
    if (isTheServer) {
      EXPECT_EQ(content, "content") << error->description();
    } else {
      EXPECT_FALSE(content.has_value());
      EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
      EXPECT_TRUE(control.reached.empty());
    }
    session.reset();
  }
}

}  // namespace
}  // namespace ombra
