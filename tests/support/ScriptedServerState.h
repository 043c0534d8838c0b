// The insides of the scripted server, shared by its pool and connections. For tests/support alone.
#pragma once

#include <atomic>
#include <set>

#include "remote/KnownListings.h"
#include "remote/Session.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ScriptedTree.h"
#include "tests/support/WatchedCondition.h"

namespace ombra {

class ScriptedConnection;

// How a held call goes on.
enum class HoldEnd { kPassed, kFailed, kInterrupted };

class HoldPoint final : public ScriptedHold {
 public:
  HoldPoint(std::string operation, std::string path, uint64_t position)
      : iOperation(std::move(operation)), iPath(std::move(path)), iPosition(position) {}

  bool waitUntilHeld(size_t count) override EXCLUDES(iCondition);
  size_t heldCount() const override EXCLUDES(iCondition);
  void release() override EXCLUDES(iCondition);
  void releaseFailing(NSErrorRef error) override EXCLUDES(iCondition);

  bool matches(std::string_view operation, std::string_view path) const;
  uint64_t position() const { return iPosition; }
  // Sleeps until released, or until `interrupted` answers true after a `poke`.
  HoldEnd enter(const std::function<bool()>& interrupted, NSErrorRef* error) EXCLUDES(iCondition);
  void poke() EXCLUDES(iCondition);

 private:
  const std::string iOperation;
  const std::string iPath;
  const uint64_t iPosition;
  mutable WatchedCondition iCondition;
  size_t iHeld GUARDED_BY(iCondition) = 0;
  bool iReleased GUARDED_BY(iCondition) = false;
  bool iFails GUARDED_BY(iCondition) = false;
  NSErrorRef iError GUARDED_BY(iCondition);
};

// What was decided about a call before the tree is asked.
struct CallVerdict {
  bool fails = false;
  NSErrorRef error;      // with `fails`; may be null all the same
  NSErrorRef sideError;  // fills the slot of a call that succeeds
};

class ScriptedServer::State final : public KCConnectionPool, public std::enable_shared_from_this<State> {
 public:
  explicit State(uint32_t protocol);
  ~State() override;

  // The pool.
  std::shared_ptr<KCCredentials> credentials() const override { return iCredentials; }
  void setMaximumConnections(int maximum) override EXCLUDES(iCondition);
  std::shared_ptr<AbstractConnection> acquireConnection() override EXCLUDES(iCondition);
  std::shared_ptr<AbstractConnection> acquireConnectionWithTimeout(
      double timeout, const CancellationToken* cancellation) override EXCLUDES(iCondition);
  void releaseConnection(std::shared_ptr<AbstractConnection> connection) override EXCLUDES(iCondition);
  void setTranscriptDelegate(TranscriptDelegate* delegate) override EXCLUDES(iCondition);
  void shutDown() override EXCLUDES(iCondition);

  // Records the call, lets the observer look, sleeps in holds at position 0, looks up injected errors.
  // `cancelled` (may be null) ends holds.
  CallVerdict begin(int connection, std::string_view operation, std::vector<std::string> arguments,
                    std::string_view path, const std::atomic<bool>* cancelled = nullptr) EXCLUDES(iCondition);
  // The same for a place in the middle of a transfer, without a record.
  CallVerdict reach(std::string_view operation, std::string_view path, uint64_t position,
                    const std::atomic<bool>* cancelled) EXCLUDES(iCondition);
  // The next byte position after `moved` where this transfer stops for a hold or an error; kAtEnd without
  // one.
  uint64_t nextStop(std::string_view operation, std::string_view path, uint64_t moved) EXCLUDES(iCondition);
  // The error that the transfer meets at exactly this position.
  std::optional<NSErrorRef> errorAfter(std::string_view operation, std::string_view path, uint64_t moved)
      EXCLUDES(iCondition);
  // Wakes held calls so that they look at their cancel flags.
  void pokeHolds() EXCLUDES(iCondition);
  void releaseHolds() EXCLUDES(iCondition);

  struct Transfer {
    ScriptedTransfer record;
    ScriptedConnection* connection = nullptr;  // while it runs
    uint64_t reached = 0;
  };
  size_t beginTransfer(ScriptedTransfer record, ScriptedConnection* connection) EXCLUDES(iCondition);
  void addPiece(size_t transfer, std::string_view bytes, uint64_t reached) EXCLUDES(iCondition);
  void finishTransfer(size_t transfer, bool succeeded, NSErrorRef error) EXCLUDES(iCondition);

  struct Injected {
    std::string operation;
    std::string path;
    NSErrorRef error;
    bool once = false;
    bool succeeds = false;
    std::optional<uint64_t> afterBytes;
    bool matches(std::string_view operation, std::string_view path) const;
  };

  const std::shared_ptr<KCCredentials> iCredentials;
  std::atomic<bool> iIsSFTP;
  std::atomic<bool> iIsWebDAV;
  std::atomic<bool> iSupportsUploadByteOffset;
  std::atomic<bool> iIsShutDown{false};
  std::atomic<size_t> iChunkSize{65536};
  std::atomic<size_t> iStreamCapacity{32768};

  mutable WatchedCondition iCondition;
  ScriptedTree iTree GUARDED_BY(iCondition);
  std::optional<std::string> iLoginPath GUARDED_BY(iCondition) = "/";
  bool iLoggedIn GUARDED_BY(iCondition) = false;
  std::optional<std::optional<std::string>> iPwd GUARDED_BY(iCondition);
  bool iAcquisitionTimesOut GUARDED_BY(iCondition) = false;
  bool iAcquisitionFails GUARDED_BY(iCondition) = false;
  std::optional<NSFileAttributes> iFileSystemAttributes GUARDED_BY(iCondition);
  FlagHandler iChangeDirHandler GUARDED_BY(iCondition);
  ResolveHandler iResolveHandler GUARDED_BY(iCondition);
  AttributesHandler iAttributesHandler GUARDED_BY(iCondition);
  ContentsHandler iContentsHandler GUARDED_BY(iCondition);
  std::function<void(const ScriptedCall&)> iObserver GUARDED_BY(iCondition);
  std::vector<Injected> iInjected GUARDED_BY(iCondition);
  std::vector<std::shared_ptr<HoldPoint>> iHolds GUARDED_BY(iCondition);
  std::vector<ScriptedCall> iCalls GUARDED_BY(iCondition);
  std::vector<Transfer> iTransfers GUARDED_BY(iCondition);
  std::set<const AbstractConnection*> iOut GUARDED_BY(iCondition);
  int iConnections GUARDED_BY(iCondition) = 0;
  size_t iAcquired GUARDED_BY(iCondition) = 0;
  size_t iReleased GUARDED_BY(iCondition) = 0;
  int iMaximumConnections GUARDED_BY(iCondition) = -1;
  std::atomic<TranscriptDelegate*> iTranscriptDelegate{nullptr};
  std::atomic<bool> iTellsNews{false};
  KnownListings iListings;
  std::atomic<bool> iLastTookAhead{false};
  const KCUUID iTranscriptUUID = KCUUID::UUID();

 private:
  std::shared_ptr<AbstractConnection> makeConnection() EXCLUDES(iCondition);
  void record(int connection, std::string_view operation, std::vector<std::string> arguments)
      EXCLUDES(iCondition);
};

}  // namespace ombra
