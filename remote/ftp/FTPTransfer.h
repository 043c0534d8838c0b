// A data connection and the command that it belongs to.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "remote/Session.h"
#include "remote/ftp/FTPControl.h"
#include "remote/ftp/FTPEncryption.h"
#include "remote/ftp/FTPErrors.h"
#include "remote/ftp/FTPStream.h"
#include "remote/net/WakeUp.h"

namespace ombra {

// A server that was asked for a data connection waits for it, for a minute or more, before it does anything
// else. So who stops a transfer has it made first, which takes a moment, before it is broken off; where it
// takes longer than this, the session is given up.
inline constexpr std::chrono::milliseconds kFTPConnectGrace{1000};

// What every transfer of a session works with. Owned by the session.
struct FTPSurroundings {
  FTPControl& control;
  FTPEncryption* encryption;  // null: data travel in the clear
  const WakeUp& wakeUp;
  const SessionEnvironment& environment;
};

// Connects, waits, sends and receives while it listens to the control connection, where the server says that
// it has begun, that it refuses, or that all has arrived. One that is destroyed before `finish` breaks the
// data connection off and leaves the rest of the conversation to nobody. Of one thread.
//
// connecting -> handshake (under TLS) -> open -> ended -> finished; the control connection is failed where
// the server cannot be understood or reached any more.
class FTPTransfer {
 public:
  // `path` and `operation` are for the errors. `control` may be null. With `restarts`, a REST stands before
  // the command, which must not be left for another one.
  FTPTransfer(const FTPSurroundings& surroundings, std::string path, FTPOperation operation,
              TransferControl* control, bool restarts);
  ~FTPTransfer();
  FTPTransfer(const FTPTransfer&) = delete;
  FTPTransfer& operator=(const FTPTransfer&) = delete;

  // Begins to connect to that port of the server. False with the number of a system error set; nothing has
  // happened then.
  [[nodiscard]] bool tryOpen(int port);
  // The same, but that the control connection has failed then too.
  [[nodiscard]] bool open(int port, NSErrorRef* error);
  bool isOpening() const { return iStream != nullptr; }
  // Waits until the connection is there and encrypted, if it is to be. To break it off again needs no more: a
  // server that waits for one would not go on before, and some end the session over half a handshake.
  [[nodiscard]] bool establish(NSErrorRef* error);
  // Waits until the server has agreed to the transfer.
  [[nodiscard]] bool start(NSErrorRef* error);
  // Waits for some bytes, and takes as many as are there. 0 of them at the end.
  [[nodiscard]] bool receive(void* buffer, size_t capacity, size_t* count, NSErrorRef* error);
  // Sends all of them.
  [[nodiscard]] bool send(const void* bytes, size_t length, NSErrorRef* error);
  // Everything was sent or received: the server's last word.
  [[nodiscard]] bool finish(NSErrorRef* error);

  // The final reply, once it is known.
  const std::optional<FTPReply>& reply() const { return iFinal; }
  // The server has taken the data connection into use.
  bool hasStarted() const { return iHasStarted; }
  // Whoever gives the bytes took its time: the server is not to blame for the silence.
  void touch() { iLastTraffic = std::chrono::steady_clock::now(); }

 private:
  enum class State { kConnecting, kHandshake, kOpen, kEnded, kFinished };
  using Outcome = FTPStream::Outcome;

  bool checkConnect(NSErrorRef* error);
  // Waits for the data connection, `events` of it, or for a reply.
  bool wait(short events, NSErrorRef* error);
  // The same until it is the data connection, if no reply ends the transfer.
  bool waitForData(NSErrorRef* error);
  // After a step of the data connection: waits where it asks for that. False when it broke.
  bool goOn(Outcome outcome, NSErrorRef* error);
  bool takeReplies(NSErrorRef* error);
  std::chrono::steady_clock::time_point limit() const;
  bool isCancelled(NSErrorRef* error);
  // The data connection broke, or never came about: the server's word on it, if there comes one.
  bool explainBreak(const std::string& problem, NSErrorRef* error);
  bool failControl(QuarnKitErrorCode code, const std::string& why, NSErrorRef* error);

  const FTPSurroundings iSurroundings;
  const std::string iPath;
  const FTPOperation iOperation;
  TransferControl* const iControl;
  const bool iRestarts;
  std::unique_ptr<FTPStream> iStream;
  State iState = State::kConnecting;
  bool iHasStarted = false;
  bool iIsReady = false;  // the last wait was ended by the data connection
  bool iEndWasSeen = false;
  std::optional<FTPReply> iFinal;
  std::chrono::steady_clock::time_point iBegin = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point iLastTraffic = iBegin;
};

}  // namespace ombra
