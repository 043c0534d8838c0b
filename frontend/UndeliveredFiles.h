// What helpers could not store on their servers by the time of unmount.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/Output.h"
#include "platform/foundation/NSNotificationCenter.h"

namespace ombra {

struct UndeliveredFile {
  std::string path;  // within the volume
  std::string copy;  // where its content is kept on this machine; empty when even that failed
  std::string reason;
};

// One entry as helpers send it: "path TAB copy TAB reason"; what is missing stays empty. A tab within the
// paths comes as a backslash and "t", a backslash as two.
UndeliveredFile parseUndeliveredFile(std::string_view text);

// Listens to helpers while their volumes are unmounted. Make it before they are asked. Main thread only.
class UndeliveredFiles {
 public:
  // Hears the helpers on the bus that DBUS_SESSION_BUS_ADDRESS names at the first use in this process.
  UndeliveredFiles();
  ~UndeliveredFiles();
  UndeliveredFiles(const UndeliveredFiles&) = delete;
  UndeliveredFiles& operator=(const UndeliveredFiles&) = delete;

  // What the helper of that registration name told until its last word. The helper has ended; what it sent
  // may still be under way, so this waits for its last word, for a second at most.
  std::vector<UndeliveredFile> ofHelper(const std::string& registeredName);
  // Whether that last word has come. Without it, nobody knows what became of what was unsent.
  bool hasEnded(const std::string& registeredName) const { return iEnded.contains(registeredName); }

 private:
  struct Told {
    std::string registeredName;
    UndeliveredFile file;
  };
  std::vector<Told> iTold;
  std::set<std::string> iEnded;
};

// Tells the user which files were not stored, each with its copy. True when there was anything to tell.
bool tellUndelivered(const std::string& volumeName, const std::vector<UndeliveredFile>& files,
                     const Output& output);

}  // namespace ombra
