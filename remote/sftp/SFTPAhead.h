// Files and folders that a session opens before they are asked for.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPRequests.h"
#include "remote/sftp/SFTPWalks.h"

namespace ombra {

// Over a long way, to open something costs as much as to read it. For a program that walks through a tree the
// next few items are opened while it deals with the present one; what they hold is asked for only when it
// comes to them. What is not taken within seconds is closed. One thread at a time.
class SFTPAhead {
 public:
  using Kind = SFTPWalks::Kind;
  struct Opened {
    std::string handle;    // to be closed by whoever takes it
    int64_t modified = 0;  // when the item was listed, in seconds
  };
  // Of one kind: neighbours, and as many in a folder below.
  static constexpr size_t kMostFolders = 16;
  static constexpr size_t kMostFiles = 32;

  SFTPAhead(SFTPChannel& channel, SFTPRequests& requests, std::shared_ptr<SFTPWalks> walks);

  // What was opened ahead at that path, unless it is known to be of no use any more. Waits for a reply that
  // is under way. The server may still have another item there by now: the caller has it looked at.
  std::optional<Opened> take(std::string_view path, Kind kind);
  // Opens what a walk that is at `path` will ask for next. Without waiting.
  void openNext(std::string_view path, Kind kind);
  // The same for what lies in a folder that was just listed.
  void openFirstIn(std::string_view folder, Kind kind);
  // What is to be moved or removed must not be open: some servers refuse it then. Without waiting.
  void closeBelow(std::string_view path);
  // Waits for the replies that are under way, since handles may be in them.
  void closeAll();
  bool isEmpty() const { return iItems.empty() && iOrphans.empty(); }

 private:
  struct Item {
    Kind kind = Kind::kFolder;
    uint32_t id = 0;     // of the request, while its reply is under way
    std::string handle;  // then
    int64_t modified = 0;
    uint64_t changes = 0;  // that had been made when it was opened
    NSDate opened;
  };
  using Items = std::map<std::string, Item, std::less<>>;

  void open(std::vector<SFTPWalks::Item> guessed, Kind kind);
  bool isOutdated(const std::string& path, const Item& item) const;
  // Takes the replies that have come and closes what nobody wants any more.
  void tidyUp();
  Items::iterator close(Items::iterator item);
  // Closes the handle in a reply that has come.
  void closeHandleIn(uint32_t id);

  SFTPChannel& iChannel;
  SFTPRequests& iRequests;
  const std::shared_ptr<SFTPWalks> iWalks;
  Items iItems;
  std::vector<uint32_t> iOrphans;  // requests whose handle is to be closed as soon as it is known
};

}  // namespace ombra
