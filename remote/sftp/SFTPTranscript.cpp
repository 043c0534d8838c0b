#include "remote/sftp/SFTPTranscript.h"

#include <fmt/format.h>

#include "remote/TranscriptText.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {

constexpr std::pair<uint32_t, std::string_view> kStatusNames[] = {
    {kSFTPStatusOK, "ok"},
    {kSFTPStatusEOF, "eof"},
    {kSFTPStatusNoSuchFile, "no-such-file"},
    {kSFTPStatusPermissionDenied, "permission-denied"},
    {kSFTPStatusFailure, "failure"},
    {kSFTPStatusBadMessage, "bad-message"},
    {kSFTPStatusOpUnsupported, "unsupported"},
};

std::string statusText(const SFTPReply& reply) {
  const auto status = parseSFTPStatus(reply);
  if (!status) return "unreadable";
  std::string text = fmt::format("{}", status->code);
  for (const auto& [code, name] : kStatusNames) {
    if (code == status->code) text = name;
  }
  if (status->code > kSFTPStatusEOF && !status->message.empty()) text += " " + sftpQuoted(status->message);
  return text;
}

std::string namesText(const SFTPReply& reply) {
  const auto names = parseSFTPNames(reply);
  if (!names) return "unreadable";
  // The one name of a resolved path or link is the answer itself; names of a listing are only counted.
  if (names->size() == 1) return sftpQuoted(names->front().filename);
  return fmt::format("{} names", names->size());
}

}  // namespace

std::string sftpQuoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      result.append({'\\', c});
    } else {
      appendVisibly(c, &result);
    }
  }
  return result + '"';
}

std::string sftpOpenFlagsText(uint32_t flags) {
  static constexpr std::pair<uint32_t, std::string_view> kNames[] = {
      {kSFTPOpenRead, "read"},     {kSFTPOpenWrite, "write"},       {kSFTPOpenAppend, "append"},
      {kSFTPOpenCreate, "create"}, {kSFTPOpenTruncate, "truncate"}, {kSFTPOpenExclusive, "exclusive"},
  };
  std::string text;
  for (const auto& [flag, name] : kNames) {
    if (!(flags & flag)) continue;
    if (!text.empty()) text += '+';
    text += name;
  }
  return text;
}

std::string sftpRequestText(uint32_t id, std::string_view text) {
  const size_t space = text.find(' ');
  const std::string_view rest = space == std::string_view::npos ? std::string_view() : text.substr(space);
  return fmt::format("{} id={}{}\n", text.substr(0, space), id, rest);
}

std::string sftpReplyText(const SFTPReply& reply) {
  switch (reply.type) {
    case kSFTPStatus:
      return fmt::format("status id={} {}\n", reply.id, statusText(reply));
    case kSFTPHandle:
      return fmt::format("handle id={}\n", reply.id);
    case kSFTPData: {
      const auto data = parseSFTPData(reply);
      return fmt::format("data id={} length={}\n", reply.id, data ? data->size() : 0);
    }
    case kSFTPName:
      return fmt::format("name id={} {}\n", reply.id, namesText(reply));
    case kSFTPAttrs:
      return fmt::format("attrs id={}\n", reply.id);
    case kSFTPExtendedReply:
      return fmt::format("extended-reply id={}\n", reply.id);
    default:
      return fmt::format("unknown type={} id={}\n", reply.type, reply.id);
  }
}

std::string sftpVersionText(uint32_t version, const SFTPExtensions& extensions) {
  std::string text = fmt::format("version version={}", version);
  for (const auto& [name, data] : extensions) {
    text += fmt::format(" {}={}", sftpQuoted(name), sftpQuoted(data.substr(0, 64)));
  }
  return text + "\n";
}

}  // namespace ombra
