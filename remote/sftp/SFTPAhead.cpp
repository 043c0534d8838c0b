#include "remote/sftp/SFTPAhead.h"

#include <algorithm>
#include <utility>

#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
constexpr double kMostSeconds = 5.0;

size_t mostOf(SFTPWalks::Kind kind) {
  return kind == SFTPWalks::Kind::kFolder ? SFTPAhead::kMostFolders : SFTPAhead::kMostFiles;
}
}  // namespace

SFTPAhead::SFTPAhead(SFTPChannel& channel, SFTPRequests& requests, std::shared_ptr<SFTPWalks> walks)
    : iChannel(channel), iRequests(requests), iWalks(std::move(walks)) {}

std::optional<SFTPAhead::Opened> SFTPAhead::take(std::string_view path, Kind kind) {
  if (isEmpty() || iChannel.failure()) return std::nullopt;
  tidyUp();
  const auto found = iItems.find(path);
  if (found == iItems.end() || found->second.kind != kind) return std::nullopt;
  Item item = std::move(found->second);
  iItems.erase(found);
  if (!item.handle.empty()) return Opened{std::move(item.handle), item.modified};
  auto reply = iChannel.wait(item.id, nullptr);
  if (!reply) return std::nullopt;
  auto handle = parseSFTPHandle(*reply);
  iChannel.recycle(std::move(*reply));
  if (!handle) return std::nullopt;
  return Opened{std::move(*handle), item.modified};
}

void SFTPAhead::openNext(std::string_view path, Kind kind) {
  open(iWalks->next(path, kind, mostOf(kind) / 2), kind);
}

void SFTPAhead::openFirstIn(std::string_view folder, Kind kind) {
  open(iWalks->firstIn(folder, kind, mostOf(kind) / 2), kind);
}

void SFTPAhead::open(std::vector<SFTPWalks::Item> guessed, Kind kind) {
  if (guessed.empty() || iChannel.failure()) return;
  tidyUp();
  const auto opened = std::count_if(iItems.begin(), iItems.end(),
                                    [kind](const auto& item) { return item.second.kind == kind; });
  auto room = static_cast<ptrdiff_t>(mostOf(kind)) - opened;
  for (SFTPWalks::Item& next : guessed) {
    if (room <= 0) return;
    if (iItems.contains(next.path)) continue;
    Item item;
    item.kind = kind;
    item.modified = next.modified;
    item.changes = iWalks->changes();
    item.opened = NSDate::date();
    item.id = kind == Kind::kFolder ? iRequests.opendir(next.path) : iRequests.open(next.path, kSFTPOpenRead);
    iItems.emplace(std::move(next.path), std::move(item));
    --room;
  }
}

bool SFTPAhead::isOutdated(const std::string& path, const Item& item) const {
  const double age = NSDate::date().timeIntervalSinceDate(item.opened);
  return age < 0.0 || age > kMostSeconds || iWalks->isAffected(path, item.changes);
}

void SFTPAhead::tidyUp() {
  std::erase_if(iOrphans, [this](uint32_t id) {
    const bool hasCome = iChannel.hasReply(id);
    if (hasCome) closeHandleIn(id);
    return hasCome;
  });
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
    item = isOutdated(item->first, item->second) ? close(item) : std::next(item);
  }
}

SFTPAhead::Items::iterator SFTPAhead::close(Items::iterator item) {
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
