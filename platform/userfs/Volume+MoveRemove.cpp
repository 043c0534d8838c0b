// Removal and moves, also of files that are open.
#include <linux/fs.h>

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

// A move between its settling and its end, however that comes.
class MoveUnderWay {
 public:
  MoveUnderWay(GMUserFileSystemDurability* durability, const std::string& from)
      : iDurability(durability), iFrom(from) {}
  ~MoveUnderWay() {
    if (iDurability != nullptr) iDurability->moveFailedAtPath(iFrom);
  }
  MoveUnderWay(const MoveUnderWay&) = delete;
  MoveUnderWay& operator=(const MoveUnderWay&) = delete;
  void succeeded() { iDurability = nullptr; }

 private:
  GMUserFileSystemDurability* iDurability;
  const std::string& iFrom;
};

}  // namespace

// A removed file goes on serving its handles. It must not be uploaded any more, or it would come back on the
// server, and so it is told before it is removed there.
std::vector<GMUserData> Volume::abandonFilesAtPath(const std::string& path) {
  std::vector<GMUserData> files;
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr) return files;
  if (const auto item = iHandles.itemAtPath(path); item != nullptr && item->userData() != nullptr) {
    files.push_back(item->userData());
  }
  // One that nobody has open may still be sending.
  GMUserData prepared = durability->openFileAtPathIfAny(path);
  if (prepared != nullptr && std::find(files.begin(), files.end(), prepared) == files.end()) {
    files.push_back(std::move(prepared));
  }
  for (const GMUserData& file : files) durability->abandonFile(file);
  return files;
}

void Volume::reclaim(const std::string& path, const std::vector<GMUserData>& files) {
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr) return;
  for (const GMUserData& file : files) {
    durability->reclaimFile(file);
    // A close in between was answered although its upload had been ended for the removal.
    iHandles.noteChange(file);
    iClosers.add([volume = shared_from_this(), path, file] {
      if (volume->synchronizeItem(OpenItem(path, file)) == 0) return;
      NSLog("\"{}\" could not be stored after its removal was refused.", path);
    });
  }
}

int Volume::removeFile(const char* path) {
  const std::string listed = listedPath(path);
  const auto attributes = attributesAtPath(listed);
  const auto abandoned = abandonFilesAtPath(listed);
  NSErrorRef error;
  if (!delegate().removeItemAtPath(listed, &error)) {
    reclaim(listed, abandoned);
    return failure(error);
  }
  iHandles.markRemoved(listed, attributes.value_or(NSFileAttributes()));
  iFolders.forgetEntry(listed);
  return 0;
}

int Volume::removeFolder(const char* path) {
  const std::string listed = listedPath(path);
  NSErrorRef error;
  if (!delegate().removeItemAtPath(listed, &error)) return failure(error);
  iFolders.remove(listed);
  return 0;
}

// Looks at what is at the destination; the delegate has one answer for every reason to refuse a move.
int Volume::checkReplacement(const std::string& from, const std::string& to, unsigned flags) {
  const auto present = attributesAtPath(to);
  if (!present) return 0;
  if ((flags & RENAME_NOREPLACE) != 0) return -EEXIST;
  const auto source = attributesAtPath(from);
  if (!source) return -ENOENT;
  const bool ontoFolder = present->fileType == NSFileTypeValue::NSFileTypeDirectory;
  const bool isFolder = source->fileType == NSFileTypeValue::NSFileTypeDirectory;
  if (isFolder && !ontoFolder) return -ENOTDIR;
  if (!isFolder && ontoFolder) return -EISDIR;
  if (!ontoFolder) return 0;
  const auto contents = names(to, nullptr);
  return contents && !contents->empty() ? -ENOTEMPTY : 0;
}

int Volume::moveListed(const std::string& from, const std::string& to) {
  GMUserFileSystemDurability* durability = this->durability();
  NSErrorRef error;
  // What is being sent of the source would otherwise end under the old name.
  if (durability != nullptr && !durability->settleBeforeMoveAtPath(from, &error)) return failure(error);
  MoveUnderWay move(durability, from);
  const auto replaced = attributesAtPath(to);
  const bool replacesFile = replaced && replaced->fileType != NSFileTypeValue::NSFileTypeDirectory;
  const auto abandoned = replacesFile ? abandonFilesAtPath(to) : std::vector<GMUserData>();
  if (!delegate().moveItemAtPath(from, to, &error)) {
    // The delegate deletes the destination first: it may be gone although the move has failed.
    if (attributesAtPath(to)) {
      reclaim(to, abandoned);
    } else if (replaced) {
      iHandles.markRemoved(to, *replaced);
    }
    return failure(error);
  }
  if (replaced) iHandles.markRemoved(to, *replaced);
  iHandles.move(from, to);
  iFolders.move(from, to);
  if (durability != nullptr) durability->movedItemAtPath(from, to);
  move.succeeded();
  return 0;
}

int Volume::move(const char* from, const char* to, unsigned flags) {
  // No server can exchange two items in one step.
  if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return -EINVAL;
  const std::string listedFrom = listedPath(from);
  const std::string listedTo = listedPath(to);
  // The other Unicode form of its own name: it is there already, as the server writes it. The delegate would
  // take it for another item that is in the way, and delete it.
  if (listedFrom == listedTo || canonicallyEqual(listedFrom, listedTo)) return 0;
  if (const int refusal = refusalToCreate(listedTo); refusal != 0) return refusal;
  if (const int refusal = checkReplacement(listedFrom, listedTo, flags); refusal != 0) return refusal;
  return moveListed(listedFrom, listedTo);
}

}  // namespace ombra
