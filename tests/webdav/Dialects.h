// A folder with one file and one folder in it, as servers tell it.
#pragma once

#include <string>
#include <vector>

namespace ombra {

struct DAVDialect {
  std::string name;
  std::string path;  // that was asked for
  std::string document;
  std::string fileName;  // as it is on the server's disk
  bool tellsCreation;
};

// What the servers answer to the request of this engine; the hosted ones as their documents describe them.
const std::vector<DAVDialect>& davDialects();

}  // namespace ombra
