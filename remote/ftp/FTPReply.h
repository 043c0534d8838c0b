// What an FTP server answers on its control connection.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// One whole answer.
struct FTPReply {
  int code = 0;                    // 100 … 599
  std::vector<std::string> lines;  // the text of each line, without the code where the line has it

  bool isPreliminary() const { return code < 200; }
  bool isPositive() const { return code >= 200 && code < 300; }
  bool wantsMore() const { return code >= 300 && code < 400; }
  bool isRefusal() const { return code >= 400; }
  // The server does not know the command or its parameters: nothing was done, and never will be.
  bool isUnknownCommand() const { return code == 500 || code == 501 || code == 502 || code == 504; }
  // The last line's text: what one-line replies say.
  std::string_view text() const { return lines.empty() ? std::string_view() : lines.back(); }
  // Code and all text on one line, fit for a message to the user.
  std::string description() const;
};

// Cuts the bytes of a control connection into replies. Bounded: a server that never ends a line or a reply is
// found out.
class FTPReplyParser {
 public:
  static constexpr size_t kMaximumReply = 1024 * 1024;

  void add(std::string_view bytes) { iBytes.append(bytes); }
  // The next whole reply; absent when it has not arrived, or when isBroken.
  std::optional<FTPReply> next();
  // What came was no reply. It stays so.
  bool isBroken() const { return iIsBroken; }
  // Nothing is left that has arrived.
  bool isEmpty() const { return iBytes.empty() && iReply.lines.empty(); }

 private:
  std::optional<std::string> nextLine();
  // True when the line ends the reply.
  bool take(std::string line);

  std::string iBytes;
  size_t iScanned = 0;  // of iBytes: holds no line end so far
  FTPReply iReply;      // the lines of the reply that has not ended
  size_t iReplySize = 0;
  bool iIsBroken = false;
};

// The path in the text of a 257: in quotes, quotes in it doubled. Absent when there is none.
std::optional<std::string> quotedFTPPath(std::string_view text);
// The port of a 229, "(|||6446|)"; absent when there is none.
std::optional<int> portOfExtendedPassive(std::string_view text);
// The port of a 227, "(h1,h2,h3,h4,p1,p2)", with or without the brackets. The address is not looked at: the
// data come from where the control connection leads, and a server behind an address translation does not know
// its own.
std::optional<int> portOfPassive(std::string_view text);

}  // namespace ombra
