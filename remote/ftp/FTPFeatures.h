// What a server says that it can do.
#pragma once

#include <string>

#include "remote/ftp/FTPReply.h"

namespace ombra {

// From the answer to FEAT. A server that does not know the command has none of it.
struct FTPFeatures {
  bool utf8 = false;
  bool mlst = false;  // MLSD and MLST
  bool mfmt = false;
  bool mdtm = false;
  bool size = false;
  bool restStream = false;
  bool epsv = false;
  // What to send to have the facts that are wanted, where the server would leave some of them out: the whole
  // command ("OPTS MLST type;size;"). Empty when there is nothing to send.
  std::string factsCommand;
};

// None of them where the reply is no list of features.
FTPFeatures featuresOfReply(const FTPReply& reply);

}  // namespace ombra
