// A file protocol server in memory, with habits that a test chooses.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "remote/sftp/SFTPPacket.h"
#include "tests/sftp/PeerTransport.h"

namespace ombra::test {

// Files, folders and links by absolute path. Answers as OpenSSH's server does, statuses included.
class MemoryServer {
 public:
  struct Item {
    uint32_t mode = 0100644;
    std::string content;  // of a file; the text of a link
    uint32_t date = 1000;
    uint32_t owner = 501;
    uint32_t group = 20;
  };

  MemoryServer();

  void addFile(const std::string& path, std::string content, uint32_t date = 1000);
  void addFolder(const std::string& path);
  void addLink(const std::string& path, std::string target);
  // A pipe or a device, by its whole mode.
  void addSpecial(const std::string& path, uint32_t mode) { iItems[path] = {mode, "", 1000}; }
  void setDate(const std::string& path, uint32_t date) { iItems[path].date = date; }
  void remove(const std::string& path) { iItems.erase(path); }
  // Another file comes to that path; handles go on standing for the old one.
  void replace(const std::string& path, std::string content, uint32_t date);
  const Item* item(const std::string& path) const;
  // The content of a file; fails the test when there is none.
  std::string content(const std::string& path) const;
  size_t openHandles() const { return iHandles.size(); }
  void forgetHandles() { iHandles.clear(); }
  // The connection has ended: what was not said yet is not said any more.
  void hangUp() {
    iHandles.clear();
    iHeld.clear();
  }

  // For the transport's handler.
  void handle(const PeerRequest& request, PeerTransport& transport);

  // Habits.
  std::vector<std::pair<std::string, std::string>> extensions;
  // Replies are held until this many wait, then sent in reverse order. 1 = at once.
  size_t batch = 1;
  // A read answers at most so many bytes.
  size_t mostPerRead = SIZE_MAX;
  size_t namesPerReply = 100;
  // Requests of a type are refused with this status instead: after the first `second` of them.
  std::map<uint8_t, std::pair<uint32_t, size_t>> refusals;
  std::string refusalText = "Failure";
  uint64_t freeBytes = 1 << 30;
  bool isReadOnly = false;  // what the volume says of itself
  // What a limits request is told.
  uint64_t readLength = 0;
  uint64_t writeLength = 0;
  // Paths that may not be looked into.
  std::set<std::string> forbidden;
  // Files that may not be opened for reading, or for writing.
  std::set<std::string> unreadable;
  std::set<std::string> unwritable;
  // Nobody may give files away.
  bool refuseOwner = false;
  // The server only tidies paths up, and follows nothing.
  bool resolvesLexically = false;
  // The files that were brought to the disk, in order.
  std::vector<std::string> flushed;
  // Called before each request is answered.
  std::function<void(const PeerRequest&)> before;
  // Sends what is held back.
  void flush(PeerTransport& transport);

 private:
  struct Handle {
    std::string path;
    bool isFolder = false;
    size_t nextName = 0;
  };
  struct Answer;

  std::string answer(const PeerRequest& request);
  std::string answerToHandle(const PeerRequest& request, SFTPPacketReader& reader);
  std::string answerToPath(const PeerRequest& request, SFTPPacketReader& reader);
  std::string changeNames(const PeerRequest& request, SFTPPacketReader& reader);
  // The request's path as it leads over links.
  std::string takePath(SFTPPacketReader& reader) const;
  std::string open(uint32_t id, SFTPPacketReader& reader);
  std::string opendir(uint32_t id, const std::string& path);
  std::string read(uint32_t id, SFTPPacketReader& reader);
  std::string write(uint32_t id, SFTPPacketReader& reader);
  std::string readdir(uint32_t id, const std::string& handle);
  std::string setAttributes(uint32_t id, const std::string& path, SFTPPacketReader& reader);
  std::string rename(uint32_t id, const std::string& from, const std::string& to, bool replaces);
  std::string extended(uint32_t id, SFTPPacketReader& reader);
  std::string realpath(uint32_t id, const std::string& path);
  std::string attributesReply(uint32_t id, const std::string& path) const;
  bool hasChildren(const std::string& path) const;
  // The path with all links followed; absent with a status in `status`.
  std::optional<std::string> follow(const std::string& path, uint32_t* status,
                                    bool lastMayMiss = false) const;

  // The path with the links on the way to its last component followed; the path itself where that fails.
  std::string followWay(const std::string& path) const;

  std::map<std::string, Item> iItems;
  std::map<std::string, Handle> iHandles;
  std::vector<std::string> iHeld;
  std::map<uint8_t, size_t> iSeen;
  uint32_t iLastHandle = 0;
};

}  // namespace ombra::test
