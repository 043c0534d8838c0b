// An FTP server in this process that answers as a test says.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/KCCredentials.h"
#include "tests/support/WatchedCondition.h"

namespace ombra {

// Serves any number of sessions, each on a thread of its own. Without a word from the test it is a plain
// server whose files are those of `files`; what is scripted comes before that.
class FakeFTPServer {
 public:
  // What becomes of a data connection.
  enum class End {
    kClosed,
    kReset,
    kSilent,  // stays open and nothing more comes, until the client closes it
  };

  // What becomes of a port that is asked for with no command behind it yet.
  enum class Ports {
    kKept,
    kForgotten,  // closed as soon as nothing more is there to do
    kLate,       // told only when the next command has come
    kRefused,
    kRefusedLate,
    kLast,  // told, and then the server goes away
  };

  FakeFTPServer();
  ~FakeFTPServer();
  FakeFTPServer(const FakeFTPServer&) = delete;
  FakeFTPServer& operator=(const FakeFTPServer&) = delete;

  int port() const { return iPort; }
  std::shared_ptr<KCCredentials> credentials() const;

  // The greeting; each session takes the next one, and the last one stays.
  void setGreetings(std::vector<std::string> greetings);
  // The lines of FEAT, without which the server knows no such command.
  void setFeatures(std::vector<std::string> features);
  // The answer to commands that begin with `start`; lines end with "\r\n". "" closes the control connection.
  // The longest start decides. With several answers each command takes the next, and the last one stays.
  void answer(const std::string& start, std::vector<std::string> replies);
  // What LIST or MLSD, or RETR of a path, sends in place of what it would, and how that ends.
  void send(const std::string& start, std::string data, End end = End::kClosed);
  // Forgets the commands behind the first one of a piece, as servers do that read no further.
  void setKeepsOnlyFirst(bool keepsOnlyFirst) { iKeepsOnlyFirst = keepsOnlyFirst; }
  void setPorts(Ports ports) { iPorts = ports; }
  // Says that a transfer has ended before it has sent anything.
  void setEndsBeforeData(bool endsBeforeData) { iEndsBeforeData = endsBeforeData; }
  void putFile(const std::string& path, std::string content);
  std::optional<std::string> file(const std::string& path) const;
  // The paths of all files, in order.
  std::vector<std::string> files() const;

  // All commands of all sessions so far, without the login's.
  std::vector<std::string> commands() const;
  // Waits until so many of these commands have been answered. "late EPSV": is to be, when the next one comes.
  void waitForAnswers(const std::string& command, size_t count);
  // How often a session had to wait for the client before it could go on, since the last call. A port that
  // the client asked for ahead, which it does not wait for, does not count.
  int takeRoundTrips();
  int sessions() const { return iSessions.load(); }

 private:
  struct Data {
    std::string bytes;
    End end = End::kClosed;
  };
  struct Line;
  void acceptSessions();
  void serve(int socket);
  bool obey(Line& line, const std::string& command);
  bool receive(Line& line);
  void note(const std::string& answered);
  bool openPort(Line& line, const std::string& command);
  std::string replyFor(Line& line, const std::string& command);
  std::optional<Data> dataFor(Line& line, const std::string& command);
  int acceptData(Line& line);
  bool storeFrom(int socket, const std::string& path, const Data& data);
  bool sendTo(int socket, const Data& data);
  bool transfer(Line& line, const std::string& command);
  std::optional<std::string> scripted(const std::string& command);
  std::optional<Data> scriptedData(const std::string& command);
  std::string greeting();

  int iPort = 0;
  int iListener = -1;
  int iStop = -1;  // readable when the server is to end
  std::atomic<int> iSessions{0};
  std::atomic<bool> iKeepsOnlyFirst{false};
  std::atomic<bool> iEndsBeforeData{false};
  std::atomic<Ports> iPorts{Ports::kKept};
  WatchedCondition iAnswering;
  std::vector<std::string> iAnswered GUARDED_BY(iAnswering);
  mutable Mutex iLock;
  std::vector<std::string> iGreetings GUARDED_BY(iLock){"220 ready"};
  std::vector<std::string> iFeatures GUARDED_BY(iLock);
  std::map<std::string, std::vector<std::string>> iAnswers GUARDED_BY(iLock);
  std::map<std::string, Data> iData GUARDED_BY(iLock);
  std::map<std::string, std::string> iFiles GUARDED_BY(iLock);
  std::vector<std::string> iCommands GUARDED_BY(iLock);
  int iRoundTrips GUARDED_BY(iLock) = 0;
  std::vector<std::thread> iThreads GUARDED_BY(iLock);
  std::thread iAcceptor;
};

}  // namespace ombra
