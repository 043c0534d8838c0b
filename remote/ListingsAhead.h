// Folders that are listed before they are asked for.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"
#include "remote/Session.h"
#include "remote/Walks.h"

namespace ombra {

// Over a long way a program that walks through a tree waits for one folder after the other. Where a session
// has one request under way at a time, the folders to which such a program comes next are listed on further
// sessions meanwhile.
//
// A folder is  wanted -> being listed -> listed;  whoever asks for it takes it out, and waits where it is
// being listed. What was begun more than a second before it is asked for, or failed, or may have been changed
// through this program since, is never handed out: then the server is asked anew.
//
// Thread-safe. One lock, which is not held while a folder is listed.
class ListingsAhead {
 public:
  using Entries = std::vector<RemoteEntry>;
  // Lists a folder, on a thread of this object's. `begins` is called right before the server is asked; when
  // it answers false nobody wants the listing any more. False when there is none.
  using List =
      std::function<bool(const std::string& folder, const std::function<bool()>& begins, Entries* entries)>;
  // At a time: each takes a session.
  static constexpr size_t kMostFolders = 4;
  static constexpr double kMostSecondsOld = 1.0;
  // A server that answers sooner is asked one question after the other: sessions cost more than they gain.
  static constexpr double kWorthwhileSeconds = 0.008;

  explicit ListingsAhead(List list);
  // Waits for what is being listed.
  ~ListingsAhead();
  ListingsAhead(const ListingsAhead&) = delete;
  ListingsAhead& operator=(const ListingsAhead&) = delete;

  // `folder` is about to be listed: the listing, when it can be had. Waits for one that is being made. To be
  // told to `listed` as well.
  std::optional<Entries> take(std::string_view folder) EXCLUDES(iCondition);
  // What the folder holds; `seconds`: how long the server was asked for, absent when it was not. Begins what
  // comes next on a walk.
  void listed(std::string_view folder, const Entries& entries, std::optional<double> seconds)
      EXCLUDES(iCondition);
  // Told of all changes, before this returns to whoever made them (`Walks::Change`).
  Walks& walks() { return iWalks; }
  // Nothing is begun any more.
  void stop() EXCLUDES(iCondition);

 private:
  enum class State { kWanted, kWaitingForSession, kBeingListed, kListed, kFailed };
  struct Item {
    explicit Item(std::string path) : folder(std::move(path)) {}
    const std::string folder;
    State state = State::kWanted;
    bool isCalledOff = false;
    NSDate begun = NSDate::date();  // when it came to be wanted, then when the server was asked
    uint64_t changes = 0;           // that had been made by then
    double seconds = 0;             // that the server took
    Entries entries;
  };
  using ItemRef = std::shared_ptr<Item>;

  std::vector<Walks::Item> guess(std::string_view folder, bool hasFolders);
  void begin(const std::vector<Walks::Item>& guessed) EXCLUDES(iCondition);
  std::vector<ItemRef>::iterator find(std::string_view folder) REQUIRES(iCondition);
  bool isOutdated(const Item& item) const REQUIRES(iCondition);
  void forgetOld() REQUIRES(iCondition);
  bool hasThreadFor(size_t count) REQUIRES(iCondition);
  void work() EXCLUDES(iCondition);
  ItemRef nextWanted() const REQUIRES(iCondition);
  bool begins(Item& item) EXCLUDES(iCondition);
  void ended(Item& item, bool isListed, Entries entries) REQUIRES(iCondition);

  const List iList;
  Walks iWalks;

  NSCondition iCondition;
  std::vector<ItemRef> iItems GUARDED_BY(iCondition);  // what will be asked for first is the first
  double iSeconds GUARDED_BY(iCondition) = 0;          // that the server took for the last listing
  int iUntilRetry GUARDED_BY(iCondition) = 0;          // listings, after one was made for nothing
  bool iIsStopped GUARDED_BY(iCondition) = false;
  std::vector<std::thread> iThreads GUARDED_BY(iCondition);  // begun when needed, joined by the destructor
};

}  // namespace ombra
