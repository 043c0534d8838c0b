// A user of the tests' own: folders, no desktop, no keys.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>

#include "tests/support/TemporaryFolder.h"

namespace ombra {

// Sets (or with nullptr unsets) an environment variable for a scope.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string iName;
  std::string iBefore;
  bool iWasSet;
};

void writeFile(const std::string& path, std::string_view content, unsigned mode = 0600);
std::string readFile(const std::string& path);

// For the whole test program: home and data folders in a temporary one, no session bus but the private one,
// which is ended at the end. No test depends on the user that runs it.
class Surroundings : public testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;

  static const std::string& folder();
};

// Ends the private message bus in that temporary folder, if one runs.
void endPrivateBus(const std::string& temporaryFolder);

}  // namespace ombra
