#include "remote/s3/S3Answers.h"

#include <algorithm>
#include <pugixml.hpp>

#include "remote/ByteCount.h"
#include "remote/URLEncoding.h"
#include "remote/http/HTTPDate.h"

namespace ombra {
namespace {

// No entities of a document's own, no comments; a name that is a blank stays one. Document types are read to
// be seen.
constexpr unsigned kParsing =
    pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata_single | pugi::parse_doctype;
constexpr size_t kLongestWord = 1024;

std::string_view localName(const pugi::xml_node& node) {
  const std::string_view name = node.name();
  const size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool isDocumentType(const pugi::xml_node& node) { return node.type() == pugi::node_doctype; }

// The root element when it has that name.
pugi::xml_node load(pugi::xml_document& document, std::string_view text, std::string_view rootName) {
  if (!document.load_buffer(text.data(), text.size(), kParsing, pugi::encoding_utf8)) return {};
  // No server has a use for one but to make documents grow.
  if (std::any_of(document.begin(), document.end(), isDocumentType)) return {};
  const pugi::xml_node root = document.document_element();
  return localName(root) == rootName ? root : pugi::xml_node();
}

pugi::xml_node childNamed(const pugi::xml_node& node, std::string_view name) {
  for (const pugi::xml_node& child : node.children()) {
    if (localName(child) == name) return child;
  }
  return {};
}

std::string textOf(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node& child : node.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
  }
  return text;
}

std::string textIn(const pugi::xml_node& node, std::string_view name) {
  return textOf(childNamed(node, name));
}

std::string wordIn(const pugi::xml_node& node, std::string_view name) {
  std::string text = textIn(node, name);
  if (text.size() > kLongestWord) text.resize(kLongestWord);
  return text;
}

// As forms are encoded: a blank may come as "+", and a plus sign never does.
std::string decodedName(std::string text, bool isEncoded) {
  if (!isEncoded) return text;
  for (char& c : text) {
    if (c == '+') c = ' ';
  }
  return percentDecoded(text);
}

bool readObject(const pugi::xml_node& node, bool isEncoded, S3ListedObject* object) {
  object->key = decodedName(textIn(node, "Key"), isEncoded);
  object->modificationDate = dateOfISO8601Text(textIn(node, "LastModified"));
  const std::optional<uint64_t> size = byteCount(textIn(node, "Size"));
  if (!size || object->key.empty()) return false;
  object->size = *size;
  return true;
}

S3Refusal refusalOf(const pugi::xml_node& root, int status) {
  S3Refusal refusal;
  refusal.status = status;
  refusal.code = wordIn(root, "Code");
  refusal.message = wordIn(root, "Message");
  refusal.region = wordIn(root, "Region");
  return refusal;
}

}  // namespace

std::optional<std::vector<S3Bucket>> s3Buckets(std::string_view document) {
  pugi::xml_document loaded;
  const pugi::xml_node root = load(loaded, document, "ListAllMyBucketsResult");
  if (!root) return std::nullopt;
  std::vector<S3Bucket> buckets;
  for (const pugi::xml_node& node : childNamed(root, "Buckets").children()) {
    if (localName(node) != "Bucket") continue;
    buckets.push_back({textIn(node, "Name"), dateOfISO8601Text(textIn(node, "CreationDate"))});
    if (buckets.back().name.empty()) return std::nullopt;
  }
  return buckets;
}

std::optional<S3Listing> s3Listing(std::string_view document) {
  pugi::xml_document loaded;
  const pugi::xml_node root = load(loaded, document, "ListBucketResult");
  if (!root) return std::nullopt;
  const bool isEncoded = textIn(root, "EncodingType") == "url";
  S3Listing listing;
  for (const pugi::xml_node& node : root.children()) {
    const std::string_view name = localName(node);
    if (name == "Contents") {
      if (!readObject(node, isEncoded, &listing.objects.emplace_back())) return std::nullopt;
    } else if (name == "CommonPrefixes") {
      listing.prefixes.push_back(decodedName(textIn(node, "Prefix"), isEncoded));
    } else if (name == "IsTruncated") {
      listing.isTruncated = textOf(node) == "true";
    } else if (name == "NextContinuationToken") {
      listing.nextToken = textOf(node);
    }
  }
  if (listing.isTruncated && listing.nextToken.empty()) return std::nullopt;
  return listing;
}

std::optional<std::string> s3UploadId(std::string_view document) {
  pugi::xml_document loaded;
  std::string id = textIn(load(loaded, document, "InitiateMultipartUploadResult"), "UploadId");
  if (id.empty()) return std::nullopt;
  return id;
}

std::optional<std::string> s3CopiedTag(std::string_view document) {
  for (const std::string_view name : {"CopyObjectResult", "CopyPartResult"}) {
    pugi::xml_document loaded;
    const pugi::xml_node root = load(loaded, document, name);
    std::string tag = textIn(root, "ETag");
    if (root && !tag.empty()) return tag;
  }
  return std::nullopt;
}

bool s3IsCompleted(std::string_view document) {
  pugi::xml_document loaded;
  return !load(loaded, document, "CompleteMultipartUploadResult").empty();
}

std::optional<S3DeleteResult> s3DeleteResult(std::string_view document) {
  pugi::xml_document loaded;
  const pugi::xml_node root = load(loaded, document, "DeleteResult");
  if (!root) return std::nullopt;
  S3DeleteResult result;
  for (const pugi::xml_node& node : root.children()) {
    // What was gone already is what was wanted.
    if (localName(node) != "Error" || textIn(node, "Code") == "NoSuchKey") continue;
    if (result.failures++ > 0) continue;
    result.firstCode = wordIn(node, "Code");
    result.firstMessage = wordIn(node, "Message");
  }
  return result;
}

S3Refusal s3Refusal(const HTTPResponse& response) {
  pugi::xml_document loaded;
  S3Refusal refusal = refusalOf(load(loaded, response.body, "Error"), response.status);
  if (const std::string* region = response.header("x-amz-bucket-region")) refusal.region = *region;
  return refusal;
}

std::optional<S3Refusal> s3LateRefusal(const HTTPResponse& response) {
  pugi::xml_document loaded;
  const pugi::xml_node root = load(loaded, response.body, "Error");
  if (!root) return std::nullopt;
  return refusalOf(root, response.status);
}

}  // namespace ombra
