// An account of this machine for the length of a scope.
#pragma once

#include <string>

namespace ombra {

// Made with a random name and password, home folder "/tmp". Needs root.
class TemporaryUser {
 public:
  TemporaryUser();
  ~TemporaryUser();
  TemporaryUser(const TemporaryUser&) = delete;
  TemporaryUser& operator=(const TemporaryUser&) = delete;
  // Why there is none; empty when there is one.
  const std::string& problem() const { return iProblem; }
  const std::string& name() const { return iName; }
  const std::string& password() const { return iPassword; }

 private:
  std::string iName;
  std::string iPassword;
  std::string iProblem;
};

}  // namespace ombra
