#include "remote/sftp/SFTPAhead.h"

#include <algorithm>
#include <utility>

#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
constexpr double kMostSeconds = 5.0;

size_t mostOf(Walks::Kind kind) {
  return kind == Walks::Kind::kFolder ? SFTPAhead::kMostFolders : SFTPAhead::kMostFiles;
}
}  // namespace

SFTPAhead::SFTPAhead(SFTPChannel& channel, SFTPRequests& requests, std::shared_ptr<Walks> walks)
    : iChannel(channel), iRequests(requests), iWalks(std::move(walks)) {}

std::optional<SFTPAhead::Opened> SFTPAhead::take(std::string_view path, Kind kind) {
  if (isEmpty() || iChannel.failure()) return std::nullopt;
  tidyUp();
  const auto found = iItems.find(path);
  if (found == iItems.end() || found->second.kind != kind) {
    if (kind == Kind::kFile) iUntilRefill = 0;
    return std::nullopt;
  }
  Item item = std::move(found->second);
  iItems.erase(found);
  Opened opened{std::move(item.handle), item.modified, item.size, takeAsked(item)};
  if (!opened.handle.empty()) return opened;
  auto reply = iChannel.wait(item.id, nullptr);
  if (!reply) return std::nullopt;
  auto handle = parseSFTPHandle(*reply);
  iChannel.recycle(std::move(*reply));
  if (!handle) return std::nullopt;
  opened.handle = std::move(*handle);
  return opened;
}

std::optional<SFTPAhead::Asked> SFTPAhead::takeAsked(Item& item) {
  if (!item.asked) return std::nullopt;
  const double age = NSDate::date().timeIntervalSinceDate(item.askedAt);
  if (age < 0.0 || age > kMostSecondsOfContent) {
    forget(item.asked);
    forgetOldContent();
    disappoint();
    return std::nullopt;
  }
  if (!iChannel.hasReply(item.asked->readID) && iChannel.pump(std::chrono::milliseconds(0), nullptr) &&
      !iChannel.hasReply(item.asked->readID) && iMostRead < kMostRead) {
    ++iMostRead;
  }
  return item.asked;
}

void SFTPAhead::disappoint() {
  constexpr size_t kRest = 64;
  iMostRead /= 2;
  if (iMostRead == 0) iUntilRetry = kRest;
  iUntilRefill = 0;
}

void SFTPAhead::forget(std::optional<Asked>& asked) {
  if (!asked) return;
  iChannel.abandon(asked->statID);
  iChannel.abandon(asked->readID);
  asked.reset();
}

void SFTPAhead::forgetOldContent() {
  const NSDate now = NSDate::date();
  for (auto& [path, item] : iItems) {
    if (item.asked && now.timeIntervalSinceDate(item.askedAt) > kMostSecondsOfContent) forget(item.asked);
  }
}

// Of files several at a time, so that neither side is woken for each of them.
void SFTPAhead::openNext(std::string_view path, Kind kind) {
  if (kind == Kind::kFile && iUntilRefill > 0) {
    --iUntilRefill;
    return;
  }
  const std::vector<Walks::Item> guessed = iWalks->next(path, kind, mostOf(kind) / 2);
  if (guessed.empty() || iChannel.failure()) return;
  if (kind == Kind::kFile) {
    (void)iChannel.pump(std::chrono::milliseconds(0), nullptr);
    closePassedBy(parentOfRemotePath(path), guessed);
  }
  open(guessed, kind);
  if (kind == Kind::kFile) read(guessed);
}

// Somebody else has come to them, through another session: they would keep others from being opened.
void SFTPAhead::closePassedBy(std::string_view folder, const std::vector<Walks::Item>& guessed) {
  const auto isGuessed = [&guessed](const std::string& path) {
    return std::any_of(guessed.begin(), guessed.end(),
                       [&path](const auto& next) { return next.path == path; });
  };
  for (auto item = iItems.begin(); item != iItems.end();) {
    const bool isNeighbour = item->second.kind == Kind::kFile && parentOfRemotePath(item->first) == folder;
    item = isNeighbour && !isGuessed(item->first) ? close(item) : std::next(item);
  }
}

void SFTPAhead::openFirstIn(std::string_view folder, Kind kind) {
  open(iWalks->firstIn(folder, kind, mostOf(kind) / 2), kind);
}

void SFTPAhead::open(const std::vector<Walks::Item>& guessed, Kind kind) {
  if (guessed.empty() || iChannel.failure()) return;
  tidyUp();
  const auto opened = std::count_if(iItems.begin(), iItems.end(),
                                    [kind](const auto& item) { return item.second.kind == kind; });
  auto room = static_cast<ptrdiff_t>(mostOf(kind)) - opened;
  for (const Walks::Item& next : guessed) {
    if (room <= 0) return;
    if (iItems.contains(next.path)) continue;
    Item item;
    item.kind = kind;
    item.modified = next.modified;
    item.size = next.size;
    item.changes = iWalks->changes();
    item.opened = NSDate::date();
    item.id = kind == Kind::kFolder ? iRequests.opendir(next.path) : iRequests.open(next.path, kSFTPOpenRead);
    iItems.emplace(next.path, std::move(item));
    --room;
  }
}

bool SFTPAhead::isReadable(const Item& item) const {
  return item.kind == Kind::kFile && !item.handle.empty() && !item.asked && item.size &&
         *item.size <= kMostBytesOfOne && *item.size < iChannel.readLength();
}

void SFTPAhead::read(const std::vector<Walks::Item>& guessed) {
  if (iMostRead == 0) {
    if (--iUntilRetry > 0) return;
    iMostRead = 1;
  }
  forgetOldContent();
  auto asked = static_cast<size_t>(
      std::count_if(iItems.begin(), iItems.end(), [](const auto& item) { return item.second.asked; }));
  const NSDate now = NSDate::date();
  for (const Walks::Item& next : guessed) {
    if (asked >= iMostRead) break;
    const auto found = iItems.find(next.path);
    if (found == iItems.end() || !isReadable(found->second)) continue;
    Item& item = found->second;
    Asked about;
    about.length = static_cast<size_t>(*item.size) + 1;
    about.statID = iRequests.stat(next.path);
    about.readID = iRequests.read(item.handle, 0, about.length);
    item.asked = about;
    item.askedAt = now;
    ++asked;
  }
  iUntilRefill = asked / 2;
}

bool SFTPAhead::isOutdated(const std::string& path, Item& item, const NSDate& now, uint64_t changes) const {
  const double age = now.timeIntervalSinceDate(item.opened);
  if (age < 0.0 || age > kMostSeconds) return true;
  if (item.changes == changes) return false;
  if (iWalks->isAffected(path, item.changes)) return true;
  item.changes = changes;
  return false;
}

void SFTPAhead::tidyUp() {
  std::erase_if(iOrphans, [this](uint32_t id) {
    const bool hasCome = iChannel.hasReply(id);
    if (hasCome) closeHandleIn(id);
    return hasCome;
  });
  const NSDate now = NSDate::date();
  const uint64_t changes = iWalks->changes();
  for (auto item = iItems.begin(); item != iItems.end();) {
    if (item->second.handle.empty() && iChannel.hasReply(item->second.id)) {
      auto reply = iChannel.take(item->second.id);
      item->second.handle = parseSFTPHandle(*reply).value_or(std::string());
      iChannel.recycle(std::move(*reply));
      if (item->second.handle.empty()) {
        // Refused, or nonsense: whoever asks for it is told by the server itself.
        item = iItems.erase(item);
        continue;
      }
    }
    item = isOutdated(item->first, item->second, now, changes) ? close(item) : std::next(item);
  }
}

SFTPAhead::Items::iterator SFTPAhead::close(Items::iterator item) {
  forget(item->second.asked);
  if (item->second.handle.empty()) {
    iOrphans.push_back(item->second.id);
  } else {
    iChannel.abandon(iRequests.close(item->second.handle));
  }
  return iItems.erase(item);
}

void SFTPAhead::closeHandleIn(uint32_t id) {
  auto reply = iChannel.take(id);
  const auto handle = parseSFTPHandle(*reply);
  iChannel.recycle(std::move(*reply));
  if (handle) iChannel.abandon(iRequests.close(*handle));
}

void SFTPAhead::closeBelow(std::string_view path) {
  if (isEmpty() || iChannel.failure()) return;
  tidyUp();
  for (auto item = iItems.begin(); item != iItems.end();) {
    item = isAtOrBelowRemotePath(item->first, path) ? close(item) : std::next(item);
  }
}

void SFTPAhead::closeAll() {
  iUntilRefill = 0;
  for (auto item = iItems.begin(); item != iItems.end();) item = close(item);
  for (const uint32_t id : std::exchange(iOrphans, {})) {
    while (!iChannel.failure() && !iChannel.hasReply(id)) {
      if (!iChannel.pump(std::chrono::milliseconds(100), nullptr)) return;
    }
    if (!iChannel.failure()) closeHandleIn(id);
  }
  if (!iChannel.failure()) iChannel.flushBriefly();
}

}  // namespace ombra
