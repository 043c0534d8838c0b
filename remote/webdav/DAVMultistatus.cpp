#include "remote/webdav/DAVMultistatus.h"

#include <algorithm>
#include <charconv>
#include <pugixml.hpp>

#include "remote/ByteCount.h"
#include "remote/http/HTTPDate.h"
#include "remote/http/HTTPText.h"

namespace ombra {

namespace {

constexpr std::string_view kDAVNamespace = "DAV:";
// So much is looked at, and then read, at a time: the elements of a document take many times its length.
constexpr size_t kSlice = 16 * 1024;

// An element's name: "D:href" is "href" with the prefix "D".
struct Name {
  explicit Name(pugi::xml_node element) : local(element.name()) {
    const size_t colon = local.find(':');
    if (colon == std::string_view::npos) return;
    prefix = local.substr(0, colon);
    local.remove_prefix(colon + 1);
  }
  std::string_view prefix;
  std::string_view local;
};

// "xmlns:D", or "xmlns" for the empty prefix.
bool declares(std::string_view attribute, std::string_view prefix) {
  constexpr std::string_view kDeclaration = "xmlns";
  if (!attribute.starts_with(kDeclaration)) return false;
  attribute.remove_prefix(kDeclaration.size());
  if (prefix.empty()) return attribute.empty();
  return attribute.starts_with(':') && attribute.substr(1) == prefix;
}

// The namespace that a prefix stands for at an element. Empty when nothing declares it.
std::string_view namespaceAt(pugi::xml_node element, std::string_view prefix) {
  for (pugi::xml_node at = element; at; at = at.parent()) {
    for (auto attribute = at.first_attribute(); attribute; attribute = attribute.next_attribute()) {
      if (declares(attribute.name(), prefix)) return attribute.value();
    }
  }
  return {};
}

// A prefix that nobody declared is a server's mistake that hides nothing.
bool isInDAV(pugi::xml_node element, std::string_view prefix) {
  const std::string_view space = namespaceAt(element, prefix);
  return space.empty() || space == kDAVNamespace;
}

bool isDAV(pugi::xml_node element, std::string_view wanted) {
  if (element.type() != pugi::node_element) return false;
  const Name name(element);
  return name.local == wanted && isInDAV(element, name.prefix);
}

pugi::xml_node childOf(pugi::xml_node parent, std::string_view name) {
  for (const pugi::xml_node child : parent.children()) {
    if (isDAV(child, name)) return child;
  }
  return {};
}

std::string_view textOf(pugi::xml_node element) { return httpTrimmed(element.text().get()); }

void readProperty(pugi::xml_node property, DAVProperties* properties) {
  if (property.type() != pugi::node_element) return;
  const auto [prefix, name] = Name(property);
  if (!isInDAV(property, prefix)) return;
  const std::string_view text = textOf(property);
  if (name == "resourcetype") {
    properties->isCollection = properties->isCollection || childOf(property, "collection");
  } else if (name == "iscollection") {
    // An older way to tell, of servers that leave the type empty.
    properties->isCollection = properties->isCollection || text == "1" || text == "true";
  } else if (name == "getcontentlength") {
    properties->contentLength = byteCount(text);
  } else if (name == "getlastmodified") {
    properties->lastModified = dateOfHTTPText(text);
    if (!properties->lastModified) properties->lastModified = dateOfISO8601Text(text);
  } else if (name == "creationdate") {
    properties->creationDate = dateOfISO8601Text(text);
    if (!properties->creationDate) properties->creationDate = dateOfHTTPText(text);
  } else if (name == "quota-available-bytes") {
    properties->quotaAvailable = byteCount(text);
  } else if (name == "quota-used-bytes") {
    properties->quotaUsed = byteCount(text);
  }
}

void readPropertySet(pugi::xml_node propertySet, DAVProperties* properties) {
  const int status = statusOfDAVText(textOf(childOf(propertySet, "status")));
  // What the server does not have is listed too, with a status of its own.
  if (status != 0 && status / 100 != 2) return;
  for (const pugi::xml_node property : childOf(propertySet, "prop").children())
    readProperty(property, properties);
}

// One "response" may name several items that share its status. Answers how many.
size_t readResponse(pugi::xml_node element, const DAVMultistatusReader::Take& take) {
  DAVResponse response;
  size_t count = 0;
  response.status = statusOfDAVText(textOf(childOf(element, "status")));
  for (const pugi::xml_node child : element.children()) {
    if (isDAV(child, "propstat")) readPropertySet(child, &response.properties);
  }
  for (const pugi::xml_node child : element.children()) {
    if (!isDAV(child, "href")) continue;
    response.href = textOf(child);
    take(response);
    ++count;
  }
  return count;
}

}  // namespace

int statusOfDAVText(std::string_view text) {
  if (!text.starts_with("HTTP/")) return 0;
  const size_t blank = text.find(' ');
  if (blank == std::string_view::npos) return 0;
  text = httpTrimmed(text.substr(blank));
  int status = 0;
  const auto result = std::from_chars(text.data(), text.data() + std::min<size_t>(text.size(), 3), status);
  return result.ec == std::errc() && status >= 100 ? status : 0;
}

DAVMultistatusReader::DAVMultistatusReader(Take take, size_t mostItems)
    : iTake(std::move(take)), iMostItems(mostItems) {}

bool DAVMultistatusReader::add(std::string_view bytes) {
  while (!bytes.empty() && iReason.empty()) {
    const std::string_view slice = bytes.substr(0, kSlice);
    bytes.remove_prefix(slice.size());
    if (!iCutter.add(slice)) return refuse(iCutter.reason());
    const bool isFirst = iCutter.isOpened() && !iHasReadRoot;
    if ((isFirst || iCutter.hasElements()) && !read()) return false;
  }
  return iReason.empty();
}

bool DAVMultistatusReader::finish() {
  if (!iReason.empty()) return false;
  if (!iCutter.finish()) return refuse(iCutter.reason());
  return !iCutter.isWhole() || read();
}

// What has come, as a document of its own: with the root's tag, which declares the names, around it.
bool DAVMultistatusReader::read() {
  iDocument.assign(iCutter.opening());
  iCutter.takeElements(&iDocument);
  iDocument += iCutter.closing();
  iHasReadRoot = true;
  pugi::xml_document parsed;
  constexpr unsigned kOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol;
  const pugi::xml_parse_result result =
      parsed.load_buffer_inplace(iDocument.data(), iDocument.size(), kOptions);
  if (!result) return refuse(result.description());
  const pugi::xml_node root = parsed.document_element();
  if (!isDAV(root, "multistatus")) return refuse("it is no answer of a WebDAV server");
  for (const pugi::xml_node child : root.children()) {
    if (isDAV(child, "response")) iItems += readResponse(child, iTake);
  }
  return iItems <= iMostItems || refuse("it has too many items");
}

bool DAVMultistatusReader::refuse(std::string_view reason) {
  iReason = reason;
  return false;
}

std::optional<std::vector<DAVResponse>> parseDAVMultistatus(std::string_view document, std::string* reason) {
  std::vector<DAVResponse> responses;
  DAVMultistatusReader reader(
      [&responses](DAVResponse response) { responses.push_back(std::move(response)); });
  reader.add(document);
  if (reader.finish()) return responses;
  if (reason != nullptr) *reason = reader.reason();
  return std::nullopt;
}

}  // namespace ombra
