// The front end's side of the credential hand-off.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/Failure.h"
#include "frontend/UniqueFd.h"
#include "platform/foundation/NSDictionary.h"

namespace ombra {

// A listening local socket in a folder of its own (mode 0700) that hands credentials to one helper and is
// gone afterwards, with its folder, in every case in which the destructor runs.
class CredentialSocket {
 public:
  // The helper's address field takes 104 bytes; a path of that length would be cut.
  static constexpr size_t kMaximumPathLength = 103;

  // In $XDG_RUNTIME_DIR, else in the per-user temporary folder. Null, with the failure filled, when there is
  // no place.
  static std::unique_ptr<CredentialSocket> create(Failure* failure);
  // In the first of these folders that exists, belongs to the user and gives a path that is short enough.
  static std::unique_ptr<CredentialSocket> createIn(const std::vector<std::string>& folders,
                                                    Failure* failure);
  ~CredentialSocket();
  CredentialSocket(const CredentialSocket&) = delete;
  CredentialSocket& operator=(const CredentialSocket&) = delete;

  const std::string& path() const { return iPath; }

  enum class Result {
    kServed,       // the credentials were sent whole
    kHelperEnded,  // `helperFd` became readable first
    kInterrupted,  // `interruptionFd` became readable first
    kTimedOut,     // nobody named the registration name in time
    kFailed,       // the socket broke
  };

  struct Hand {
    std::string_view registeredName;
    const NSData& archive;
    int helperFd = -1;                                   // a process descriptor, or -1
    int interruptionFd = -1;                             // or -1
    std::chrono::milliseconds limit{30000};              // for everything
    std::chrono::milliseconds perConnectionLimit{5000};  // for one visitor to name itself and take its answer
    // Whether that visitor may have them; empty = the user of this process.
    std::function<bool(const ucred& peer)> isAllowed;
  };

  // Waits for a visitor that is allowed and sends exactly the registration name, answers with the archive,
  // and takes no further one. Others are turned away without a byte, and the wait goes on.
  Result serve(const Hand& hand);

  // Closes the socket and removes it and its folder. Safe to call twice.
  void remove();

 private:
  CredentialSocket(std::string folder, std::string path, UniqueFd listener);

  std::string iFolder;
  std::string iPath;
  UniqueFd iListener;
};

}  // namespace ombra
