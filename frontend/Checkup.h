// A look at this machine: what mounting and logging in need, and what to run where something is missing.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/Keyring.h"

namespace ombra {

// What one look has found.
struct Finding {
  enum class State {
    kGood,
    kNote,   // works without it; worth knowing
    kWrong,  // something must be done
  };
  std::string subject;  // "fuse device"
  State state = State::kGood;
  std::string text;  // a sentence
  std::string todo;  // what to do, often a command; may be empty
};

// Where to look. Tests look elsewhere.
struct CheckupPlaces {
  std::string fuseDevice = "/dev/fuse";
  std::string searchPath;  // folders of programs, parted by colons
  std::string volumes;
  std::string helper;   // the helper's executable
  std::string keyring;  // the program that speaks to the keyring
  std::string homeFolder;
  std::string agentSocket;
  std::string cacheFolder;
  std::string authorityFile;
  std::string authorityFolder;
  bool isRoot = false;

  static CheckupPlaces ofThisMachine();
};

// The first program of that name in folders parted by colons; empty when there is none.
std::string programInPath(const std::string& name, std::string_view searchPath);

// Each waits for at most a few seconds, and changes nothing.
Finding checkFuseDevice(const CheckupPlaces& places);
Finding checkUnmounter(const CheckupPlaces& places);
Finding checkVolumesFolder(const CheckupPlaces& places);
Finding checkHelper(const CheckupPlaces& places);
Finding checkLoader(const CheckupPlaces& places);
// Volumes whose helper is gone or silent, and folders that they left behind.
Finding checkLeftovers(const CheckupPlaces& places);
Finding checkCacheFolder(const CheckupPlaces& places);
Finding checkBus(const CheckupPlaces& places);
Finding checkKeyring(const Keyring& keyring);
Finding checkAgent(const CheckupPlaces& places);
Finding checkKnownHosts(const CheckupPlaces& places);
Finding checkAuthorities(const CheckupPlaces& places);
// Compares the clock with that of an S3 server ("http[s]://host[:port]"), else asks the system whether it is
// kept right.
Finding checkClock(const std::optional<std::string>& endpoint);

// The seconds since 1970 of the "Date" in the head of an HTTP answer; absent when there is none.
std::optional<int64_t> dateInHTTPHead(const std::string& head);

}  // namespace ombra
