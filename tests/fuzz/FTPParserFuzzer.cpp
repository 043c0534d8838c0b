// Whatever an FTP server may say: replies, features, listings.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "remote/ftp/FTPErrors.h"
#include "remote/ftp/FTPFacts.h"
#include "remote/ftp/FTPFeatures.h"
#include "remote/ftp/FTPLines.h"
#include "remote/ftp/FTPListLine.h"
#include "remote/ftp/FTPReply.h"
#include "remote/ftp/FTPReplyItems.h"

namespace ombra {
namespace {

void expect(bool holds) {
  if (!holds) std::abort();
}

struct Conversation {
  std::vector<FTPReply> replies;
  bool isBroken = false;
};

Conversation conversationInPieces(const std::string& bytes, size_t piece) {
  Conversation result;
  FTPReplyParser parser;
  for (size_t at = 0; at < bytes.size() && !parser.isBroken(); at += piece) {
    parser.add(std::string_view(bytes).substr(at, piece));
    while (auto reply = parser.next()) result.replies.push_back(std::move(*reply));
  }
  result.isBroken = parser.isBroken();
  return result;
}

// However the bytes are cut, they are the same replies; and what is made of one is fit to be used.
void tryReplies(const std::string& bytes, size_t piece) {
  const Conversation whole = conversationInPieces(bytes, std::max<size_t>(bytes.size(), 1));
  const Conversation cut = conversationInPieces(bytes, piece);
  expect(whole.isBroken == cut.isBroken && whole.replies.size() == cut.replies.size());
  for (size_t i = 0; i < whole.replies.size(); ++i) {
    const FTPReply& reply = whole.replies[i];
    expect(reply.code == cut.replies[i].code && reply.lines == cut.replies[i].lines);
    expect(reply.code >= 100 && reply.code < 600 && !reply.lines.empty());
    expect(reply.description().find_first_of("\r\n") == std::string::npos);
    (void)quotedFTPPath(reply.text());
    for (const auto& port : {portOfPassive(reply.text()), portOfExtendedPassive(reply.text())}) {
      expect(!port || (*port > 0 && *port < 65536));
    }
    expect(featuresOfReply(reply).factsCommand.find_first_of("\r\n") == std::string::npos);
    (void)codeForFTPRefusal(reply, FTPOperation::kList, "/a/b");
    (void)isTooManyFTPSessions(reply);
    (void)itemOfMLST(reply);
    (void)itemOfSTAT(reply, "/a/b", NSDate());
    (void)sizeOfReply(reply);
    (void)dateOfReply(reply);
  }
}

void tryItem(const std::optional<FTPItem>& item) {
  if (!item) return;
  expect(!item->entry.name.empty());
  expect(item->entry.name.find('\n') == std::string::npos);
  expect(item->entry.attributes.posixPermissions.value_or(0) <= 07777);
  expect(item->entry.attributes.fileSize.value_or(0) <= INT64_MAX);
  if (item->entry.attributes.modificationDate) (void)ftpTimeOfDate(*item->entry.attributes.modificationDate);
}

void tryListing(const std::string& bytes, size_t piece, NSDate now) {
  FTPLines lines;
  const auto take = [now](std::string_view line) {
    tryItem(itemOfFacts(line));
    tryItem(itemOfListLine(line, now));
    (void)isListHeading(line);
    return true;
  };
  for (size_t at = 0; at < bytes.size(); at += piece) {
    if (!lines.add(std::string_view(bytes).substr(at, piece), take)) return;
  }
  (void)lines.finish(take);
}

}  // namespace
}  // namespace ombra

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  const bool isListing = data.ConsumeBool();
  const size_t piece = data.ConsumeIntegralInRange<size_t>(1, 100);
  const auto now = ombra::NSDate::dateWithNanoseconds(data.ConsumeIntegral<int64_t>());
  const std::string rest = data.ConsumeRemainingBytesAsString();
  if (isListing) {
    ombra::tryListing(rest, piece, now);
  } else {
    ombra::tryReplies(rest, piece);
  }
  return 0;
}
