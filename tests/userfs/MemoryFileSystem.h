// A file system in memory, as a delegate: records its calls, and holds, fails or breaks them on demand.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"

namespace ombra {

struct MemoryItem {
  NSFileTypeValue type = NSFileTypeValue::NSFileTypeRegular;
  uint16_t permissions = 0644;
  NSDate modified = NSDate::dateWithTimeIntervalSince1970(1500000000);
  std::string content;  // of a file, or the target of a link
  uint64_t number = 0;
  std::map<std::string, NSData> extendedAttributes;
};
using MemoryItemRef = std::shared_ptr<MemoryItem>;

class MemoryOpenFile final : public GMOpenFile {
 public:
  explicit MemoryOpenFile(MemoryItemRef opened) : item(std::move(opened)) {}
  const MemoryItemRef item;
};

// Thread-safe. Names of operations are the methods' first keywords without "AtPath" and the like: "read",
// "open", "remove"… A rule set for an operation applies to every path, or to one.
class MemoryFileSystem : public GMUserFileSystemDelegate {
 public:
  MemoryFileSystem();

  // The tree, behind the delegate's back: what a server would do on its own.
  void addFile(const std::string& path, std::string content, uint16_t permissions = 0644);
  void addFolder(const std::string& path);
  void addLink(const std::string& path, std::string target);
  void erase(const std::string& path);
  std::optional<std::string> contentOf(const std::string& path);
  std::optional<MemoryItem> itemAt(const std::string& path);

  // Calls of `operation` (on `path`, when given) block until `letGo`.
  void hold(const std::string& operation, const std::string& path = "");
  void letGo(const std::string& operation, const std::string& path = "");
  // Blocks until `count` calls are held.
  void waitUntilHeld(size_t count);
  // Calls fail with that number of the interface; 0 fails without an error object, absent succeeds again.
  void failWith(const std::string& operation, std::optional<int> code);
  // Calls raise a KCException.
  void raiseIn(const std::string& operation);

  // "open /a 0x2", in the order they came.
  std::vector<std::string> calls();
  size_t countOf(std::string_view call);  // calls that begin so
  void forgetCalls();
  // Blocks until `count` calls begin so.
  void waitForCalls(std::string_view call, size_t count);

  void willMount() override;
  std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(OptionalPath path,
                                                                    NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath path, const GMUserData& userData,
                                                         NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfFileSystemForPath(OptionalPath path,
                                                                NSErrorRef* error) override;
  bool setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                     const GMUserData& userData, NSErrorRef* error) override;
  bool createDirectoryAtPath(OptionalPath path, const NSFileAttributes& attributes,
                             NSErrorRef* error) override;
  bool createFileAtPath(OptionalPath path, const NSFileAttributes& attributes, GMUserData* userData,
                        NSErrorRef* error) override;
  bool createSymbolicLinkAtPath(OptionalPath path, OptionalPath withDestinationPath,
                                NSErrorRef* error) override;
  std::optional<std::string> destinationOfSymbolicLinkAtPath(OptionalPath path, NSErrorRef* error) override;
  bool moveItemAtPath(OptionalPath path, OptionalPath toPath, NSErrorRef* error) override;
  bool removeItemAtPath(OptionalPath path, NSErrorRef* error) override;
  bool openFileAtPath(OptionalPath path, int mode, GMUserData* userData, NSErrorRef* error) override;
  int readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size, int64_t offset,
                     NSErrorRef* error) override;
  int writeFileAtPath(OptionalPath path, const GMUserData& userData, const void* buffer, size_t size,
                      int64_t offset, NSErrorRef* error) override;
  bool truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                          NSErrorRef* error) override;
  void releaseFileAtPath(OptionalPath path, const GMUserData& userData) override;
  std::optional<std::vector<std::string>> extendedAttributesOfItemAtPath(OptionalPath path,
                                                                         NSErrorRef* error) override;
  std::optional<NSData> valueOfExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath,
                                                 int64_t position, NSErrorRef* error) override;
  bool setExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath, const NSData& value,
                            int64_t position, int options, NSErrorRef* error) override;

 protected:
  // Records the call, lets rules act. False when the call is to fail; the slot is filled then.
  bool enter(const std::string& operation, OptionalPath path, std::string_view details, NSErrorRef* error)
      EXCLUDES(iCondition);
  static bool fail(int code, NSErrorRef* error);
  MemoryItemRef find(OptionalPath path) REQUIRES(iCondition);
  // The one open-file object of an item, as long as anyone holds it.
  std::shared_ptr<MemoryOpenFile> openFileOf(const MemoryItemRef& item) REQUIRES(iCondition);
  std::shared_ptr<MemoryOpenFile> preparedFileOf(const MemoryItemRef& item) REQUIRES(iCondition);

  NSCondition iCondition;
  std::map<std::string, MemoryItemRef> iItems GUARDED_BY(iCondition);

 private:
  MemoryItemRef add(const std::string& path, NSFileTypeValue type) EXCLUDES(iCondition);
  bool isHeld(const std::string& operation, const std::string& path) REQUIRES(iCondition);
  bool isFolderEmpty(const std::string& path) REQUIRES(iCondition);

  uint64_t iLastNumber GUARDED_BY(iCondition) = 0;
  std::map<MemoryItem*, std::shared_ptr<MemoryOpenFile>> iOpenFiles GUARDED_BY(iCondition);
  std::set<std::pair<std::string, std::string>> iHolds GUARDED_BY(iCondition);
  size_t iHeld GUARDED_BY(iCondition) = 0;
  std::map<std::string, int> iFailures GUARDED_BY(iCondition);
  std::set<std::string> iRaising GUARDED_BY(iCondition);
  std::vector<std::string> iCalls GUARDED_BY(iCondition);
};

// The same with the optional operations.
class DurableMemoryFileSystem : public MemoryFileSystem, public GMUserFileSystemDurability {
 public:
  // Only the first `arrived` bytes of the file can be read, and the rest is in that state.
  void setContentState(const std::string& path, GMContentState state, uint64_t arrived);
  // What drainAll answers.
  void setUndelivered(std::vector<GMUndelivered> undelivered);
  // Whether new files may still be refused.
  std::atomic<bool> doubtsCreations{false};
  // Whether releases are promised to wait for nothing.
  std::atomic<bool> promisesQuickReleases{false};

  int readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size, int64_t offset,
                     NSErrorRef* error) override;

  bool flushFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) override;
  bool synchronizeFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) override;
  bool releasesAtOnce(const GMUserData&) override { return promisesQuickReleases; }
  bool isCreationInDoubt(const GMUserData&) override { return doubtsCreations; }
  GMContentState contentStateOfFile(const GMUserData& userData) override;
  void waitForContent(const GMUserData& userData, uint64_t seen) override;
  bool changeAttributesWithoutContent(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                      NSErrorRef* error) override;
  void seedCacheAttributesAtPath(OptionalPath path, const GMUserData& userData) override;
  void abandonFile(const GMUserData& userData) override;
  void reclaimFile(const GMUserData& userData) override;
  bool truncateAbandonedFile(const GMUserData& userData, int64_t offset, NSErrorRef* error) override;
  GMUserData openFileAtPathIfAny(OptionalPath path) override;
  bool settleBeforeMoveAtPath(OptionalPath path, NSErrorRef* error) override;
  void movedItemAtPath(OptionalPath path, OptionalPath toPath) override;
  std::optional<std::vector<std::string>> namesAsListedAtPath(OptionalPath path, NSErrorRef* error) override;
  std::string listedPathForPath(std::string_view path) override;
  std::optional<std::string> knownDestinationOfSymbolicLinkAtPath(OptionalPath path) override;
  void forgetFailedContentAtPath(OptionalPath path) override;
  void trimCache() override;
  std::vector<GMUndelivered> drainAll() override;
  void giveUpConnections() override;

 private:
  struct Arrival {
    GMContentState state = GMContentState::kComplete;
    uint64_t bytes = 0;
  };
  std::map<MemoryItem*, Arrival> iArrivals GUARDED_BY(iCondition);
  std::vector<GMUndelivered> iUndelivered GUARDED_BY(iCondition);
};

}  // namespace ombra
