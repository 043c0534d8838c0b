// The desktop's keyring, where a user's passwords are kept.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "frontend/Interruption.h"
#include "frontend/Output.h"

namespace ombra {

// Whose secret it is: names and values, in the words of frontend/keyring/main.cpp. None of them is secret.
using KeyringItem = std::vector<std::pair<std::string, std::string>>;

struct KeyringLimits {
  std::chrono::milliseconds service{10'000};  // for each answer of the service
  std::chrono::milliseconds person{60'000};   // for everything, so that somebody can unlock the keyring
};

// Each call runs the program that speaks to the service, and waits for its end, for a bounded time. Nothing
// is kept here. Main thread only.
class Keyring {
 public:
  enum class Answer {
    kDone,
    kNothingFound,
    kAbsent,  // no session bus, or nobody on it keeps secrets
    kLocked,  // and nobody has unlocked it
    kFailed,  // or did not answer in time
    kInterrupted,
  };

  // Destroying it wipes the text.
  struct Reply {
    Answer answer = Answer::kFailed;
    std::string text;  // the secret
    int count = 0;     // of secrets that were removed
    std::string why;   // a sentence, unless it is done
    Reply() = default;
    ~Reply();
    Reply(Reply&&) = default;
    Reply& operator=(Reply&&) = default;
  };

  // `program` is the executable that speaks to the service.
  Keyring(std::string program, const Interruption& interruption, const Output& output,
          KeyringLimits limits = {});

  // Whether there is a keyring; a locked one may still open when it is needed.
  Reply check() const;
  Reply find(const KeyringItem& item) const;
  // Replaces what is kept for the same item. `label` is what the desktop's own tools show.
  Reply store(const KeyringItem& item, const std::string& label, const std::string& secret) const;
  // Removes all whose attributes include these.
  Reply remove(const KeyringItem& item) const;

 private:
  Reply run(const std::vector<std::string>& words, const KeyringItem& item, const std::string* input) const;

  std::string iProgram;
  const Interruption& iInterruption;
  const Output& iOutput;
  KeyringLimits iLimits;
};

}  // namespace ombra
