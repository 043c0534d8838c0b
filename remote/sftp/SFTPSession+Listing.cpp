// Listing a folder: many READDIRs in flight, and the questions about links with them.
#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

namespace {

constexpr size_t kFirstReaddirs = 2;
constexpr size_t kMostReaddirs = 16;
constexpr size_t kMostLinkQuestions = 64;
// Telling circles from links into nowhere costs round trips: the rest is asked for one by one when it is
// wanted.
constexpr size_t kMostWalks = 64;
// A folder beyond this is a server that never ends its answer.
constexpr size_t kMostEntries = 20'000'000;

uint32_t typeOfEntry(const SFTPName& name) {
  if (name.attributes.isDirectory()) return kNodeTypeFolder;
  if (name.attributes.isLink()) return kNodeTypeAlias;
  if (name.attributes.fileType() != 0) return kNodeTypeFile;
  // Servers without a type in their attributes still print one, as ls does.
  if (name.longname.starts_with('d')) return kNodeTypeFolder;
  if (name.longname.starts_with('l')) return kNodeTypeAlias;
  return kNodeTypeFile;
}

RemoteEntry entryForName(SFTPName name) {
  RemoteEntry entry;
  entry.type = typeOfEntry(name);
  entry.attributes = fileAttributesFromSFTP(name.attributes);
  if (!entry.attributes.fileType && entry.type == kNodeTypeFolder) {
    entry.attributes.fileType = NSFileTypeValue::NSFileTypeDirectory;
  } else if (!entry.attributes.fileType && entry.type == kNodeTypeAlias) {
    entry.attributes.fileType = NSFileTypeValue::NSFileTypeSymbolicLink;
  }
  entry.name = std::move(name.filename);
  return entry;
}

void addForWalks(Walks::Listing& known, const SFTPName& name) {
  const SFTPAttributes& attributes = name.attributes;
  if (!attributes.times || (!attributes.isDirectory() && !attributes.isFile())) return;
  known.add(name.filename, attributes.isDirectory() ? Walks::Kind::kFolder : Walks::Kind::kFile,
            attributes.times->modification, attributes.size);
}

}  // namespace

struct SFTPSession::Listing {
  std::string path;
  std::string handle;
  std::vector<RemoteEntry>* entries = nullptr;
  Walks::Listing forWalks;
  std::deque<uint32_t> readdirs;
  size_t readdirLimit = kFirstReaddirs;
  std::deque<LinkQuestion> questions;
  size_t walks = 0;
  bool ended = false;
};

bool SFTPSession::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  entries->clear();
  if (!isUsablePath(path, error)) return false;
  iWalks->reached(path, Walks::Kind::kFolder);
  if (const auto opened = iAhead.take(path, Walks::Kind::kFolder)) {
    const auto listed = listOpened(*opened, path, entries, error);
    if (listed) return *listed;
    entries->clear();
  }
  NSErrorRef reason;
  const auto handle = waitHandle(iRequests.opendir(path), SFTPOperation::kList, path, &reason);
  if (!handle) {
    storeError(error, explainListing(reason, path));
    return false;
  }
  Listing listing;
  listing.path = path;
  listing.handle = *handle;
  listing.entries = entries;
  return readListing(listing, error);
}

// What the handle stands for is known by the date that the folder had when its own folder was listed. A
// folder that has changed since is opened anew, because some servers read it when it is opened.
std::optional<bool> SFTPSession::listOpened(const SFTPAhead::Opened& opened, std::string_view path,
                                            std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  Listing listing;
  listing.path = path;
  listing.handle = opened.handle;
  listing.entries = entries;
  askForNames(listing);
  const auto present = waitAttributes(iRequests.stat(path), SFTPOperation::kOther, path, nullptr);
  const bool isTheSame = present && present->isDirectory() && present->times &&
                         int64_t{present->times->modification} == opened.modified;
  NSErrorRef reason;
  if (isTheSame && readListing(listing, &reason)) return true;
  if (!isTheSame) {
    for (const uint32_t id : listing.readdirs) iChannel.abandon(id);
    if (!iChannel.failure()) iChannel.abandon(iRequests.close(opened.handle));
  }
  if (!iChannel.failure()) return std::nullopt;
  storeError(error, iChannel.failure());
  return false;
}

// Closes the handle.
bool SFTPSession::readListing(Listing& listing, NSErrorRef* error) {
  const bool read = readFolder(listing, error);
  for (const uint32_t id : listing.readdirs) iChannel.abandon(id);
  iChannel.abandon(iRequests.close(listing.handle));
  const bool settled = read && settleLinks(listing, 0, error);
  for (const LinkQuestion& question : listing.questions) abandon(question);
  if (settled) {
    iWalks->listed(listing.path, std::move(listing.forWalks));
    iAhead.openFirstIn(listing.path, Walks::Kind::kFolder);
    iAhead.openNext(listing.path, Walks::Kind::kFolder);
    iAhead.openFirstIn(listing.path, Walks::Kind::kFile);
  }
  // A folder that stays open until this session is used again could not be removed meanwhile on some servers.
  iChannel.flushBriefly();
  return settled;
}

void SFTPSession::askForNames(Listing& listing) {
  while (listing.readdirs.size() < listing.readdirLimit) {
    listing.readdirs.push_back(iRequests.readdir(listing.handle));
  }
}

bool SFTPSession::readFolder(Listing& listing, NSErrorRef* error) {
  while (!listing.ended) {
    askForNames(listing);
    auto reply = iChannel.wait(listing.readdirs.front(), error);
    if (!reply) return false;
    listing.readdirs.pop_front();
    // A folder that goes on is worth more requests at a time.
    if (listing.readdirLimit < kMostReaddirs) ++listing.readdirLimit;
    const bool taken = takeNames(listing, *reply, error);
    iChannel.recycle(std::move(*reply));
    if (!taken || !settleLinks(listing, kMostLinkQuestions, error)) return false;
  }
  return true;
}

bool SFTPSession::takeNames(Listing& listing, const SFTPReply& reply, NSErrorRef* error) {
  const auto status = parseSFTPStatus(reply);
  if (status && status->code == kSFTPStatusEOF) {
    listing.ended = true;
    return true;
  }
  auto names = parseSFTPNames(reply);
  if (!names || listing.entries->size() + names->size() > kMostEntries) {
    refuse(reply, SFTPOperation::kList, listing.path, error);
    return false;
  }
  // Some servers tell the end by having nothing more to tell.
  if (names->empty()) listing.ended = true;
  for (SFTPName& name : *names) {
    const bool isShown =
        name.filename.find('/') == std::string::npos && name.filename.find('\0') == std::string::npos;
    addForWalks(listing.forWalks, name);
    listing.entries->push_back(entryForName(std::move(name)));
    const RemoteEntry& entry = listing.entries->back();
    if (entry.type != kNodeTypeAlias || !isShown) continue;
    std::string itemPath = remotePathInFolder(listing.path, entry.name);
    if (itemPath.size() > kMaximumPathLength) continue;
    listing.questions.push_back(askLink(std::move(itemPath), listing.entries->size() - 1));
  }
  return true;
}

// Takes answers, oldest first, until no more than `remaining` questions are open.
bool SFTPSession::settleLinks(Listing& listing, size_t remaining, NSErrorRef* error) {
  while (listing.questions.size() > remaining) {
    const LinkQuestion question = std::move(listing.questions.front());
    listing.questions.pop_front();
    if (!settleEntry(listing, question, error)) return false;
  }
  return true;
}

bool SFTPSession::settleEntry(Listing& listing, const LinkQuestion& question, NSErrorRef* error) {
  RemoteEntry& entry = (*listing.entries)[question.entry];
  std::optional<std::string> target;
  std::optional<LinkResolution> resolution = std::move(entry.resolution);
  if (!settleLink(question, &target, &resolution, error)) return false;
  entry.resolution = std::move(resolution);
  if (question.links == 0) entry.targetPath = target;
  if (entry.resolution && !entry.resolution->isFinal) {
    if (question.links >= kMostLinksOnTheWay || entry.resolution->resolvedPath.size() > kMaximumPathLength) {
      entry.resolution = LinkResolution{};
      return true;
    }
    // The next step of all such links is in flight together.
    LinkQuestion next = askLink(entry.resolution->resolvedPath, question.entry);
    next.links = question.links + 1;
    listing.questions.push_back(std::move(next));
    return true;
  }
  if (entry.resolution || !entry.targetPath || ++listing.walks > kMostWalks) return true;
  entry.resolution = walkLink(remotePathInFolder(listing.path, entry.name), error);
  return entry.resolution.has_value();
}

// OpenSSH's server answers "no such file" for a folder that is none.
NSErrorRef SFTPSession::explainListing(NSErrorRef refused, std::string_view path) {
  if (!QuarnKitError::isCode(refused, kQuarnKitNoSuchItem) &&
      !QuarnKitError::isCode(refused, kQuarnKitRefused)) {
    return refused;
  }
  const auto present = waitAttributes(iRequests.stat(path), SFTPOperation::kOther, path, nullptr);
  if (!present || present->fileType() == 0 || present->isDirectory()) return refused;
  return QuarnKitError::errorWithCode(kQuarnKitNotAFolder, path, refused);
}

}  // namespace ombra
