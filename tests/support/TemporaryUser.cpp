#include "tests/support/TemporaryUser.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>

namespace ombra {
namespace {

std::string randomText(size_t length) {
  static constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::string text;
  while (text.size() < length) text += kLetters[random() % kLetters.size()];
  return text;
}

// The password goes through a pipe that nobody else reads.
bool setPassword(const std::string& name, const std::string& password) {
  std::FILE* pipe = popen("chpasswd", "we");
  if (pipe == nullptr) return false;
  std::fprintf(pipe, "%s:%s\n", name.c_str(), password.c_str());
  return pclose(pipe) == 0;
}

}  // namespace

TemporaryUser::TemporaryUser() : iName("ombra-" + randomText(8)), iPassword("pw-" + randomText(16)) {
  if (geteuid() != 0) {
    iProblem = "needs root to make an account";
    return;
  }
  const bool made = std::system(("useradd -M -d /tmp -s /bin/sh " + iName).c_str()) == 0;
  if (!made || !setPassword(iName, iPassword)) iProblem = "useradd or chpasswd failed";
}

TemporaryUser::~TemporaryUser() {
  if (geteuid() == 0) (void)!std::system(("userdel -f " + iName + " 2>/dev/null").c_str());
}

}  // namespace ombra
