// Files and folders that a session opens before they are asked for.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "remote/Walks.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPRequests.h"

namespace ombra {

// Over a long way, to open something costs as much as to read it. For a program that walks through a tree the
// next few items are opened while it deals with the present one. What folders hold is asked for only when it
// comes to them. Of small files attributes and content are asked for as well, a moment ahead: what came
// longer ago, or may have been changed through one of the sessions since, is asked for anew. What is not
// taken within seconds is closed. One thread at a time.
class SFTPAhead {
 public:
  using Kind = Walks::Kind;
  // Two requests about a file that are under way, or answered: whoever has them takes both replies.
  struct Asked {
    uint32_t statID = 0;  // of its path
    uint32_t readID = 0;  // from the beginning
    size_t length = 0;    // of the read: one byte more than the file had when it was listed, to see its end
  };
  struct Opened {
    std::string handle;            // to be closed by whoever takes it
    int64_t modified = 0;          // when the item was listed, in seconds
    std::optional<uint64_t> size;  // as it was listed
    std::optional<Asked> asked;
  };
  // Of one kind: neighbours, and as many in a folder below.
  static constexpr size_t kMostFolders = 16;
  static constexpr size_t kMostFiles = 64;
  // The files that are read ahead.
  static constexpr size_t kMostRead = 16;
  static constexpr size_t kMostBytesOfOne = 32 * 1024;
  static_assert(kMostRead * kMostBytesOfOne <= 1024 * 1024, "what is read ahead waits in memory");
  // How old content may be when it is taken, from the moment at which it was asked for.
  static constexpr double kMostSecondsOfContent = 0.1;

  SFTPAhead(SFTPChannel& channel, SFTPRequests& requests, std::shared_ptr<Walks> walks);

  // What was opened ahead at that path, unless it is known to be of no use any more. Waits for the reply to
  // the opening if that is under way. The server may still have another item there by now: the caller has it
  // looked at.
  std::optional<Opened> take(std::string_view path, Kind kind);
  // Opens, and reads, what a walk that is at `path` will ask for next. Without waiting.
  void openNext(std::string_view path, Kind kind);
  // The same for what lies in a folder that was just listed.
  void openFirstIn(std::string_view folder, Kind kind);
  // What was taken turned out to be of no use: less is read ahead.
  void disappoint();
  // Whether enough is there for the next files of a walk, so that nothing has to be sent for them now.
  bool isWellAhead() const { return iUntilRefill > 0 && !iItems.empty(); }
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
    std::optional<uint64_t> size;
    uint64_t changes = 0;  // that had been made when it was looked through for them
    NSDate opened;
    std::optional<Asked> asked;
    NSDate askedAt;
  };
  using Items = std::map<std::string, Item, std::less<>>;

  void open(const std::vector<Walks::Item>& guessed, Kind kind);
  void closePassedBy(std::string_view folder, const std::vector<Walks::Item>& guessed);
  void read(const std::vector<Walks::Item>& guessed);
  bool isReadable(const Item& item) const;
  // The requests about a file that was taken, if they can stand for now.
  std::optional<Asked> takeAsked(Item& item);
  void forget(std::optional<Asked>& asked);
  // Of all of them, what came too long ago.
  void forgetOldContent();
  bool isOutdated(const std::string& path, Item& item, const NSDate& now, uint64_t changes) const;
  // Takes the replies that have come and closes what nobody wants any more.
  void tidyUp();
  Items::iterator close(Items::iterator item);
  // Closes the handle in a reply that has come.
  void closeHandleIn(uint32_t id);

  SFTPChannel& iChannel;
  SFTPRequests& iRequests;
  const std::shared_ptr<Walks> iWalks;
  Items iItems;
  std::vector<uint32_t> iOrphans;    // requests whose handle is to be closed as soon as it is known
  size_t iMostRead = kMostRead / 2;  // more when the replies are waited for, fewer when they get too old
  size_t iUntilRetry = 0;            // files, when that has come down to none
  size_t iUntilRefill = 0;           // files
};

}  // namespace ombra
