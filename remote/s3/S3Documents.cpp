#include "remote/s3/S3Documents.h"

#include <fmt/format.h>

#include <algorithm>

namespace ombra {
namespace {

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\t':
      case '\n':
      case '\r':
        // As they stand they would be read as blanks.
        result += fmt::format("&#{};", static_cast<int>(c));
        break;
      default:
        result += c;
    }
  }
  return result;
}

}  // namespace

bool s3FitsDocument(std::string_view key) {
  return std::all_of(key.begin(), key.end(), [](char c) {
    return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
  });
}

std::string s3CompleteDocument(const std::vector<std::string>& tags) {
  std::string document = "<CompleteMultipartUpload xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
  for (size_t i = 0; i < tags.size(); ++i) {
    document +=
        fmt::format("<Part><PartNumber>{}</PartNumber><ETag>{}</ETag></Part>", i + 1, escaped(tags[i]));
  }
  return document + "</CompleteMultipartUpload>";
}

std::string s3DeleteDocument(const std::vector<std::string>& keys) {
  std::string document = "<Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Quiet>true</Quiet>";
  for (const std::string& key : keys) document += "<Object><Key>" + escaped(key) + "</Key></Object>";
  return document + "</Delete>";
}

}  // namespace ombra
