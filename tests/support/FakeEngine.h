// An engine without a server: every session does what the test says.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "remote/ConnectionPool.h"
#include "remote/QuarnKitError.h"
#include "remote/Session.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TemporaryFile.h"
#include "tests/support/WatchedCondition.h"

namespace ombra {

// A place where calls wait until the test opens it.
class Gate {
 public:
  // Blocks until open, or until `interrupted` (may be empty) answers true after a poke.
  void pass(const std::function<bool()>& interrupted = {}) EXCLUDES(iCondition);
  // Until `count` calls have come here since the beginning.
  bool waitUntilEntered(size_t count = 1) EXCLUDES(iCondition);
  void open() EXCLUDES(iCondition);
  void poke() EXCLUDES(iCondition);

 private:
  WatchedCondition iCondition;
  size_t iEntered GUARDED_BY(iCondition) = 0;
  bool iIsOpen GUARDED_BY(iCondition) = false;
};

class FakeSession;

// What a server lists under `name`, with nothing else known of it.
RemoteEntry entryNamed(std::string name, uint32_t type = kNodeTypeFile);

// Hooks are set before sessions are used; each is called without a lock, on the thread of the call. One that
// is not set succeeds in the simplest way.
class FakeEngine final : public Engine {
 public:
  std::function<bool(FakeSession&, NSErrorRef*)> onLogIn;
  std::function<bool(FakeSession&)> onIsAlive;
  std::function<bool(FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*)> onList;
  std::function<bool(FakeSession&, const std::string&, NSErrorRef*)>
      onChange;  // create, move, remove, attributes
  std::function<std::optional<LinkResolution>(FakeSession&, const std::string&, NSErrorRef*)> onResolve;
  std::function<bool(FakeSession&, const std::string&, NSErrorRef*)> onAttributes;  // whether it is there
  std::function<bool(FakeSession&, NSFileHandle&, uint64_t, std::string*, TransferControl&, NSErrorRef*)>
      onDownload;
  std::function<bool(FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*)> onUpload;
  std::function<bool(FakeSession&, const std::function<size_t(std::byte*, size_t)>&, TransferControl&,
                     NSErrorRef*)>
      onStream;

  std::atomic<int> cap{8};
  std::atomic<bool> inPlace{true};
  std::function<bool(const std::string&)> isFolder;  // what there are attributes of; nothing, by itself
  std::atomic<bool> keepsNames{false};
  std::atomic<bool> looksAtNew{false};
  std::atomic<bool> ahead{false};  // folders and small files are fetched ahead
  std::atomic<int> made{0};        // sessions that were ever made
  std::atomic<int> living{0};      // of those, not destroyed yet
  std::atomic<int> mostLiving{0};
  std::atomic<int> logins{0};
  std::atomic<int> lists{0};
  std::atomic<int> changes{0};
  std::atomic<int> resolves{0};
  std::atomic<int> attributeCalls{0};
  // Uploads of scratch files hold their path, and `onEndOfHold` is what becomes of it.
  std::atomic<bool> holds{false};
  std::function<NSErrorRef(FakeSession&, const std::string&)> onEndOfHold;
  std::atomic<int> endsOfHold{0};
  // Listings open something ahead, and `onEndOfOpenedAhead` is told of its end.
  std::atomic<bool> opensAhead{false};
  std::function<void()> onEndOfOpenedAhead;
  // New files are put off; uploads and streams take them over. `onMake` is what becomes of one that is made
  // by itself, `onCheckNewFile` tells whether it may wait.
  std::atomic<bool> putsOff{false};
  std::function<bool(FakeSession&, const std::string&, NSErrorRef*)> onMake;
  std::function<bool(FakeSession&, const std::string&, bool*, NSErrorRef*)> onCheckNewFile;
  Gate gate;  // for hooks to use; poked by interrupts

  uint32_t protocol() const override { return kProtocolSFTP; }
  bool isSFTP() const override { return true; }
  bool supportsUploadByteOffset() const override { return inPlace; }
  bool keepsNamesOfNewItems() const override { return keepsNames; }
  bool looksAtNewFiles() const override { return looksAtNew; }
  int sessionCap() const override { return cap; }
  bool isAskedAhead() const override { return ahead; }
  bool putsOffNewFiles() const override { return putsOff; }
  std::unique_ptr<Session> makeSession(const SessionEnvironment& environment) override;

  // Blocks until every session is destroyed but `count`.
  bool waitUntilLiving(int count);
  void sessionGone();

 private:
  WatchedCondition iCondition;
};

class FakeSession final : public Session {
 public:
  FakeSession(FakeEngine& engine, const SessionEnvironment& surroundings, int sessionNumber)
      : number(sessionNumber), environment(surroundings), iEngine(engine) {}
  ~FakeSession() override;

  const int number;  // from 1
  const SessionEnvironment environment;
  bool isInterrupted() const { return iInterrupted; }
  // From here on it is known to be of no use.
  void lose() { iIsLost = true; }

  bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return "/home/u"; }
  bool isAlive() override { return !iEngine.onIsAlive || iEngine.onIsAlive(*this); }
  bool hasFailed() const override { return iIsLost; }
  void interrupt() override;
  void becameIdle() override;
  std::string heldPath() const override { return iHeldPath; }
  bool hasOpenedAhead() const override { return iHasOpenedAhead; }
  void closeOpenedAhead() override;
  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) override;
  bool createFolder(std::string_view path, NSErrorRef* error) override { return change(path, error); }
  bool createSymbolicLink(std::string_view path, std::string_view, NSErrorRef* error) override {
    return change(path, error);
  }
  bool move(std::string_view from, bool, std::string_view, NSErrorRef* error) override {
    return change(from, error);
  }
  bool remove(std::string_view path, bool, NSErrorRef* error) override { return change(path, error); }
  bool changeAttributes(const NSFileAttributes&, std::string_view path, NSErrorRef* error) override {
    return change(path, error);
  }
  bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                TransferControl& control, NSErrorRef* error) override;
  bool upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
              NSErrorRef* error) override;
  bool checkNewFile(std::string_view path, bool* mayWait, NSErrorRef* error) override;
  bool makeFile(std::string_view path, NSErrorRef* error) override;
  bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
              TransferControl& control, NSErrorRef* error) override;

 private:
  bool change(std::string_view path, NSErrorRef* error);

  FakeEngine& iEngine;
  bool iHasOpenedAhead = false;
  std::string iHeldPath;
  std::shared_ptr<UnconfirmedExtents> iHeldExtents;
  std::atomic<bool> iInterrupted{false};
  std::atomic<bool> iIsLost{false};
};

// An error of the library, as a hook gives it: false with the slot filled.
bool failWith(QuarnKitErrorCode code, NSErrorRef* error);

// Advances the clock over the pauses of a call on another thread, and checks that each is as long as it
// should be. `attempts` counts what the call does between them. Nobody else may sleep: no session is idle.
void sitOut(ManualClock& clock, const std::vector<double>& pauses, const std::atomic<int>& attempts);

// A pool over a fake engine.
struct FakePool {
  explicit FakePool(std::shared_ptr<FakeEngine> withEngine = std::make_shared<FakeEngine>());
  // Runs `work` with a connection, on the calling thread.
  void with(const std::function<void(AbstractConnection&)>& work);
  // The result of one listing on a connection of its own.
  bool list(NSErrorRef* error = nullptr);

  std::shared_ptr<FakeEngine> engine;
  std::shared_ptr<KCCredentials> credentials;
  std::shared_ptr<ConnectionPool> pool;
};

}  // namespace ombra
