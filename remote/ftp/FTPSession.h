// A session with an FTP server.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "remote/Session.h"
#include "remote/ftp/FTPControl.h"
#include "remote/ftp/FTPEncryption.h"
#include "remote/ftp/FTPErrors.h"
#include "remote/ftp/FTPFacts.h"
#include "remote/ftp/FTPServer.h"
#include "remote/ftp/FTPTransfer.h"
#include "remote/net/WakeUp.h"

namespace ombra {

// One control connection, and a data connection per listing and per file. Paths are sent absolute, but for
// one that begins with "~", which goes as it is. Commands whose replies do not depend on each other are sent
// together, so that most operations cost one round trip, and a transfer one more for its data connection.
// While transfer follows transfer the next port for data is asked for behind the last one, so that nobody
// waits for it.
//
// Whole files arrive under a temporary name beside their own, which is never listed, and are renamed when
// they are complete: what was there before stays until then. In place, where the old content is gone as soon
// as the upload begins, go streams, empty files, links, files with further names, files that this user may
// not write, and everything on servers that do not let us make, rename or give its mode to the temporary
// file.
class FTPSession final : public Session {
 public:
  FTPSession(const SessionEnvironment& environment, std::shared_ptr<FTPServer> server);
  ~FTPSession() override;

  bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return iLoginPath; }
  bool isAlive() override;
  bool hasFailed() const override { return iControl.failure() != nullptr; }
  void interrupt() override { iWakeUp.raise(); }

  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  // Not told by the protocol.
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) override;

  bool createFolder(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) override;
  bool move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) override;
  bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                        NSErrorRef* error) override;

  bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                TransferControl& control, NSErrorRef* error) override;
  bool upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
              NSErrorRef* error) override;
  bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
              TransferControl& control, NSErrorRef* error) override;

 private:
  // A transfer and what is asked along with it.
  struct Request {
    std::vector<std::string> before{};  // commands that need no data connection; sent first
    bool needsBefore = false;           // the transfer makes no sense when one of them is refused
    uint64_t restart = 0;
    std::string command{};
    FTPOperation operation = FTPOperation::kOther;
    std::string path{};       // for errors
    std::string makes{};      // a temporary file that a transfer which is begun once more may find there
    bool startsAgain = true;  // what is sent can be had from its beginning again
    TransferControl* control = nullptr;
  };
  struct Begun {
    std::unique_ptr<FTPTransfer> transfer{};
    std::vector<FTPReply> before{};
    bool portIsAhead = false;  // that it uses was asked for before it
  };
  // A transfer that has been asked for; absent when it cannot begin. That the server refuses it may turn out
  // later.
  std::optional<Begun> begin(const Request& request, NSErrorRef* error);
  // The command and what goes with it are sent at once, on a server whose way to hand out ports is known.
  std::optional<Begun> beginAhead(const Request& request, Begun begun, NSErrorRef* error);
  // One after the other.
  std::optional<Begun> beginInSteps(const Request& request, Begun begun, NSErrorRef* error);
  // Whether the transfer makes use of a port that was asked for ahead: it is connecting, or the reply with
  // the port comes before all others.
  bool usePortAhead(FTPTransfer& transfer);
  void sendAhead(const Request& request, bool asksForPort);
  bool openPort(const Request& request, bool isAhead, FTPTransfer& transfer, NSErrorRef* error);
  std::optional<int> portOfData(const Request& request, bool isAhead, NSErrorRef* error);
  bool restartAccepted(const Request& request, FTPTransfer& transfer, NSErrorRef* error);
  const char* passiveCommand() const;
  bool mayAskForPort() const;
  // Its port was asked for ahead, and the server knows nothing of it any more: all is to begin anew.
  bool hasLostPort(const std::optional<Begun>& begun);
  // What moves the data of a transfer that has begun. False with the error filled when that fails.
  using Work = std::function<bool(Begun& begun, NSErrorRef* error)>;
  // Begins the transfer and has the work done; all of it once more where the server has lost the port that
  // was asked for ahead. When it returns, no transfer is under way any more.
  bool carryOut(const Request& request, const Work& work, NSErrorRef* error);
  // The last word of a transfer. The next port is due then, and goes with the next commands or alone.
  bool finish(FTPTransfer& transfer, NSErrorRef* error);
  void askForPort();
  static FTPPatience patienceFor(const Request& request);
  bool readReplies(size_t count, const FTPPatience& patience, std::vector<FTPReply>* replies,
                   NSErrorRef* error);
  // All commands at once, where the server bears that, and their final replies.
  bool askAll(const std::vector<std::string>& commands, std::vector<FTPReply>* replies, NSErrorRef* error);
  FTPSurroundings surroundings();

  // Logging in.
  bool greet(NSErrorRef* error);
  bool agreeOnTLS(NSErrorRef* error);
  bool authenticate(NSErrorRef* error);
  bool settle(NSErrorRef* error);
  bool refuseLogin(const FTPReply& reply, QuarnKitErrorCode code, NSErrorRef* error);
  void askForUTF8();
  void clearLeftovers();

  // Looking.
  static bool isUsablePath(std::string_view path, NSErrorRef* error);
  FTPFeatures features() const { return iServer->features().value_or(FTPFeatures()); }
  // The item that a path names, links not followed as far as the server tells them. Absent with no error
  // when there is none; with one when it cannot be told.
  std::optional<FTPItem> lookAt(std::string_view path, NSErrorRef* error);
  std::optional<FTPItem> lookInParent(std::string_view path, NSErrorRef* error);
  std::optional<NSFileAttributes> attributesByFacts(std::string_view path, bool* isDirectory,
                                                    NSErrorRef* error);
  std::optional<NSFileAttributes> attributesByAsking(std::string_view path, bool* isDirectory,
                                                     NSErrorRef* error);
  // Where a refusal does not say why, looks at what is there.
  NSErrorRef explain(NSErrorRef refused, FTPOperation operation, std::string_view path,
                     std::string_view otherPath = {});
  bool isMissing(std::string_view path);
  // What SIZE, MDTM and CWD (three replies) said of a path, links followed.
  static LinkResolution resolutionOfReplies(const std::string& path, const FTPReply* replies);
  QuarnKitErrorCode findOutCode(FTPOperation operation, std::string_view path, std::string_view otherPath);

  // Listing.
  // Gets the items one by one: there may be very many.
  struct Items {
    std::function<void(FTPItem item)> take;
    size_t count = 0;
  };
  bool listItems(std::string_view path, Items& items, NSErrorRef* error);
  bool listFacts(std::string_view path, Items& items, NSErrorRef* error);
  bool listLines(std::string_view path, Items& items, NSErrorRef* error);
  bool runList(std::string_view path, bool showsAll, Items& items, NSErrorRef* error);
  bool receiveList(FTPTransfer& transfer, bool areFacts, Items& items, NSErrorRef* error);
  void resolveLinks(std::string_view folder, std::vector<RemoteEntry>* entries);
  using Unresolved = std::vector<std::pair<RemoteEntry*, std::string>>;
  void resolveElsewhere(const Unresolved& links);
  bool clearStaleTemporaries(std::string_view path);

  // Transfers.
  struct Existing;
  enum class Stored { kYes, kNo, kInPlace };
  std::vector<std::string> questionsAbout(std::string_view path) const;
  static std::optional<std::string> identity(const std::vector<FTPReply>& replies,
                                             std::optional<uint64_t>* size);
  bool mayGoOn(std::string_view path, uint64_t offset, std::string* version, std::optional<uint64_t>* size,
               NSErrorRef* error);
  // Adds what comes to the handle, from `reached` on.
  bool receiveFile(FTPTransfer& transfer, NSFileHandle& to, uint64_t* reached, TransferControl& control,
                   NSErrorRef* error);
  // Whether the file that was received up to there is as long as was told before; the session is lost where
  // it is not.
  bool isAll(std::string_view path, uint64_t reached, std::optional<uint64_t> told, NSErrorRef* error);
  bool sendFile(FTPTransfer& transfer, const NSFileHandle& from, uint64_t length, TransferControl& control,
                NSErrorRef* error);
  bool sendStream(const std::function<size_t(std::byte*, size_t)>& next, FTPTransfer& transfer,
                  std::string_view path, TransferControl& control, NSErrorRef* error);
  // To be stored `at`; `path` is for the errors.
  static Request requestToStore(std::string_view at, std::string_view path, TransferControl& control);
  bool storeInPlace(const NSFileHandle& from, uint64_t length, std::string_view path,
                    TransferControl& control, NSErrorRef* error);
  Stored storeBeside(const NSFileHandle& from, uint64_t length, std::string_view path,
                     TransferControl& control, NSErrorRef* error);
  std::vector<std::string> questionsAboutExisting(std::string_view path) const;
  // The same, and how long the file is that it leads to.
  std::vector<std::string> questionsBeforeReplacing(std::string_view path) const;
  Existing readExisting(std::string_view path, const std::vector<FTPReply>& replies);
  bool mayStoreBeside() const;
  bool mustGoInPlace(const Existing& existing) const;
  Stored replace(const std::string& temporary, std::string_view path, const Existing& existing,
                 NSErrorRef* error);
  Stored keepMode(const std::string& temporary, const Existing& existing, std::vector<std::string>* ahead,
                  NSErrorRef* error);
  std::optional<uint16_t> modeOfNewFile(const std::string& path);
  void dropTemporary(const std::string& temporary);

  // Changing.
  bool changeMode(uint16_t mode, std::string_view path, NSErrorRef* error);
  bool changeDate(NSDate date, std::string_view path, NSErrorRef* error);
  bool answer(const std::optional<FTPReply>& reply, FTPOperation operation, std::string_view path,
              NSErrorRef* error, std::string_view otherPath = {});

  const SessionEnvironment iEnvironment;
  const std::shared_ptr<FTPServer> iServer;
  const std::string iHost;
  WakeUp iWakeUp;
  std::unique_ptr<FTPEncryption> iEncryption;
  FTPControl iControl;
  std::string iLoginPath = "/";
  bool iLoginPathIsTold = false;
  std::chrono::steady_clock::time_point iLoginDate;
  bool iIsInWalk = false;                           // transfers follow each other closely
  bool iPortIsDue = false;                          // the next one may be asked for
  std::chrono::steady_clock::time_point iPortDate;  // not later than the server made it
};

}  // namespace ombra
