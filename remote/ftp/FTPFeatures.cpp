#include "remote/ftp/FTPFeatures.h"

#include <algorithm>
#include <string_view>

#include "platform/foundation/ASCII.h"
#include "remote/ftp/FTPText.h"

namespace ombra {

namespace {

bool isWantedFact(std::string_view name) {
  constexpr std::string_view kWanted[] = {"type", "size",      "modify",   "create",
                                          "perm", "unix.mode", "unix.uid", "unix.gid"};
  return std::any_of(std::begin(kWanted), std::end(kWanted),
                     [name](std::string_view wanted) { return equalIgnoringCase(name, wanted); });
}

// The facts of "type*;size*;UNIX.mode;": a star marks those that are sent unasked.
std::string factsCommandFor(std::string_view facts) {
  std::string wanted;
  bool isMissingOne = false;
  while (!facts.empty()) {
    const size_t end = std::min(facts.find(';'), facts.size());
    std::string_view fact = ftpTrimmed(facts.substr(0, end));
    facts.remove_prefix(std::min(end + 1, facts.size()));
    const bool isSent = fact.ends_with('*');
    if (isSent) fact.remove_suffix(1);
    if (!isWantedFact(fact)) continue;
    wanted.append(fact).append(";");
    if (!isSent) isMissingOne = true;
  }
  // A command that echoes what a hostile server wrote stays short and on its line.
  const bool isSound = wanted.size() < 200 && wanted.find_first_of("\r\n") == std::string::npos;
  return isMissingOne && isSound ? "OPTS MLST " + wanted : std::string();
}

void addFeature(std::string_view line, FTPFeatures* features) {
  line = ftpTrimmed(line);
  const size_t end = std::min(line.find(' '), line.size());
  const std::string_view name = line.substr(0, end);
  const std::string_view parameters = ftpTrimmed(line.substr(end));
  if (equalIgnoringCase(name, "UTF8") || equalIgnoringCase(name, "UTF-8")) features->utf8 = true;
  if (equalIgnoringCase(name, "MFMT")) features->mfmt = true;
  if (equalIgnoringCase(name, "MDTM")) features->mdtm = true;
  if (equalIgnoringCase(name, "SIZE")) features->size = true;
  if (equalIgnoringCase(name, "EPSV")) features->epsv = true;
  if (equalIgnoringCase(name, "REST")) features->restStream = true;
  // MLSD has no line of its own in the standard; some servers give it one.
  if (equalIgnoringCase(name, "MLST") || equalIgnoringCase(name, "MLSD")) features->mlst = true;
  if (equalIgnoringCase(name, "MLST")) features->factsCommand = factsCommandFor(parameters);
}

}  // namespace

FTPFeatures featuresOfReply(const FTPReply& reply) {
  FTPFeatures features;
  if (reply.code != 211 || reply.lines.size() < 2) return features;
  for (size_t i = 1; i + 1 < reply.lines.size(); ++i) addFeature(reply.lines[i], &features);
  return features;
}

}  // namespace ombra
