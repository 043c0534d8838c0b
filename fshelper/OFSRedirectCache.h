// The folders on this machine that keep the desktop litter of volumes.
#pragma once

#include <string>

namespace ombra {

// A volume's folder, marked by a file in it that its process keeps locked for as long as it lives: so one
// that a killed process left can be told from one that is in use. The folder of a pass-through mount is kept
// from mount to mount; it bears no mark, and nothing here touches it.
class OFSRedirectCache {
 public:
  // Makes the folder, and marks it as this process's until the object goes. Where that does not work the
  // folder is for others to make, and stays when the process is killed.
  explicit OFSRedirectCache(const std::string& path);
  ~OFSRedirectCache();
  OFSRedirectCache(const OFSRedirectCache&) = delete;
  OFSRedirectCache& operator=(const OFSRedirectCache&) = delete;

  bool isMarked() const { return iMark >= 0; }

  // Removes what dead processes left in `folder`, where the folders of all volumes lie. May take long.
  static void removeAbandonedInFolder(const std::string& folder);
  // The same for the user's folder, on a thread of its own. What is not removed now is found again next time.
  static void removeAbandoned();

 private:
  int iMark = -1;
};

}  // namespace ombra
