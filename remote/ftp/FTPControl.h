// The control connection: commands out, replies in.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/Session.h"
#include "remote/ftp/FTPEncryption.h"
#include "remote/ftp/FTPReply.h"
#include "remote/ftp/FTPStream.h"
#include "remote/net/WakeUp.h"

namespace ombra {

// How long to wait for an answer, and who may end the waiting before.
struct FTPPatience {
  std::chrono::milliseconds silence{0};  // no byte for so long is the end; 0: the idle limit
  TransferControl* control = nullptr;    // asked every 100 ms whether to stop; may be null
  std::chrono::milliseconds grace{0};    // for so long its answer is passed over
};

// Commands may be sent ahead: replies come in the order of the commands. What nobody wants to hear any more
// is abandoned, and its replies are passed over whenever they come. One question may be asked ahead of its
// need: its reply is put aside when it comes, whatever is asked and abandoned meanwhile. Of one thread, but
// for what the wake-up does.
class FTPControl {
 public:
  FTPControl(const SessionEnvironment& environment, const WakeUp& wakeUp);
  FTPControl(const FTPControl&) = delete;
  FTPControl& operator=(const FTPControl&) = delete;

  // Within the connect limit, which covers the whole of the login. False with the error filled: could not
  // resolve, could not connect, connection lost.
  [[nodiscard]] bool connect(const std::string& host, int port, NSErrorRef* error);
  // Agrees on encryption. False with the error filled: the certificate was refused, could not connect, or a
  // protocol error when the server said more in the clear than it should.
  [[nodiscard]] bool startTLS(FTPEncryption& encryption, NSErrorRef* error);
  // From here on the idle limit counts, not that of the login, and 421 is a lost connection.
  void endLogin() { iIsLoggingIn = false; }
  // A text that the transcript must not show while the login lasts, whoever says it.
  void setSecret(std::string secret) { iSecret = std::move(secret); }

  // Puts a command behind those that are to be sent. `shown` stands for it in the transcript.
  void queue(std::string_view command, std::string_view shown = {});
  // Sends them. False with the error filled when the connection cannot be used any more.
  [[nodiscard]] bool flush(NSErrorRef* error);
  // The next reply that is not abandoned, preliminary ones too. Absent with the error filled: connection
  // lost, timed out, cancelled, protocol.
  std::optional<FTPReply> next(const FTPPatience& patience, NSErrorRef* error);
  // The same without the preliminary ones; too many of these are a protocol error.
  std::optional<FTPReply> nextFinal(const FTPPatience& patience, NSErrorRef* error);
  // Sends one command, and those that are queued before it; the next final reply. Absent as in `next`.
  std::optional<FTPReply> ask(std::string_view command, NSErrorRef* error, const FTPPatience& patience = {});
  // The first reply of a server, which no command asked for.
  void expectGreeting() { iExpected.push_back(Fate::kWanted); }
  // Nobody waits for what is still to come in answer to what was sent, but for what was asked ahead.
  void abandon();

  // As `queue`. Not while something is asked ahead already.
  void queueAhead(std::string_view command);
  // Whether something was asked ahead that was neither taken nor called for.
  bool isAskedAhead() const;
  // The reply to it, if it has come.
  std::optional<FTPReply> takeAhead();
  // From here on it is a reply among the others, in its place.
  void callForAhead();

  // Takes in what has arrived, without waiting. False when the connection cannot be used any more.
  bool pump();
  // Takes in the next piece of it, or the end behind it; false when there is neither.
  bool takeIn();
  // Something has arrived that no reply was made of yet; it may be part of one.
  bool hasUnread() const { return iHasUnread; }
  // A reply that is here already.
  std::optional<FTPReply> tryNext();
  // To be polled for input while there is something else to wait for too.
  int descriptor() const { return iStream->descriptor(); }
  // Set once the connection cannot be used any more: every later call fails with it.
  const NSErrorRef& failure() const { return iFailure; }
  // Gives the connection up; the first reason counts.
  void fail(NSErrorRef error);
  // When the last byte went in either direction.
  std::chrono::steady_clock::time_point lastTraffic() const { return iLastTraffic; }
  // A last word, without waiting.
  void sayGoodbye();

 private:
  bool wait(short events, std::chrono::steady_clock::time_point begin, const FTPPatience& patience,
            NSErrorRef* error);
  std::chrono::steady_clock::time_point limit(std::chrono::steady_clock::time_point begin,
                                              const FTPPatience& patience) const;
  bool report(NSErrorRef* error) const;
  std::string masked(std::string_view text) const;
  void tell(const FTPReply& reply);

  const SessionEnvironment& iEnvironment;
  const WakeUp& iWakeUp;
  std::unique_ptr<FTPStream> iStream;
  FTPReplyParser iParser;
  std::string iOutgoing;
  enum class Fate { kWanted, kAbandoned, kPutAside };
  std::deque<Fate> iExpected;  // of the commands whose final reply has not been read
  std::optional<FTPReply> iAhead;
  bool iIsLoggingIn = true;
  bool iHasUnread = false;
  std::string iSecret;
  std::optional<std::string> iEnd;  // nothing more will come, and why
  NSErrorRef iFailure;
  std::chrono::steady_clock::time_point iBegin;
  std::chrono::steady_clock::time_point iLastTraffic;
};

}  // namespace ombra
