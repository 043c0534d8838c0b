#include "remote/webdav/DAVMultistatus.h"

#include <algorithm>
#include <charconv>
#include <pugixml.hpp>

#include "remote/http/HTTPDate.h"
#include "remote/http/HTTPLengths.h"
#include "remote/http/HTTPText.h"

namespace ombra {

namespace {

constexpr std::string_view kDAVNamespace = "DAV:";
// Each element costs memory many times its shortest text.
constexpr size_t kMostMarks = 16'000'000;

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
    properties->contentLength = httpLength(text);
  } else if (name == "getlastmodified") {
    properties->lastModified = dateOfHTTPText(text);
    if (!properties->lastModified) properties->lastModified = dateOfISO8601Text(text);
  } else if (name == "creationdate") {
    properties->creationDate = dateOfISO8601Text(text);
    if (!properties->creationDate) properties->creationDate = dateOfHTTPText(text);
  } else if (name == "quota-available-bytes") {
    properties->quotaAvailable = httpLength(text);
  } else if (name == "quota-used-bytes") {
    properties->quotaUsed = httpLength(text);
  }
}

void readPropertySet(pugi::xml_node propertySet, DAVProperties* properties) {
  const int status = statusOfDAVText(textOf(childOf(propertySet, "status")));
  // What the server does not have is listed too, with a status of its own.
  if (status != 0 && status / 100 != 2) return;
  for (const pugi::xml_node property : childOf(propertySet, "prop").children())
    readProperty(property, properties);
}

// One "response" may name several items that share its status.
void readResponse(pugi::xml_node element, std::vector<DAVResponse>* responses) {
  DAVResponse response;
  response.status = statusOfDAVText(textOf(childOf(element, "status")));
  for (const pugi::xml_node child : element.children()) {
    if (isDAV(child, "propstat")) readPropertySet(child, &response.properties);
  }
  for (const pugi::xml_node child : element.children()) {
    if (!isDAV(child, "href")) continue;
    response.href = textOf(child);
    responses->push_back(response);
  }
}

std::nullopt_t refuse(std::string* reason, std::string_view words) {
  if (reason != nullptr) *reason = words;
  return std::nullopt;
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

std::optional<std::vector<DAVResponse>> parseDAVMultistatus(std::string document, std::string* reason) {
  if (document.find("<!DOCTYPE") != std::string::npos) return refuse(reason, "it has a document type");
  if (static_cast<size_t>(std::count(document.begin(), document.end(), '<')) > kMostMarks)
    return refuse(reason, "it has too many elements");
  pugi::xml_document parsed;
  constexpr unsigned kOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol;
  const pugi::xml_parse_result result =
      parsed.load_buffer_inplace(document.data(), document.size(), kOptions);
  if (!result) return refuse(reason, result.description());
  const pugi::xml_node root = parsed.document_element();
  if (!isDAV(root, "multistatus")) return refuse(reason, "it is no answer of a WebDAV server");
  std::vector<DAVResponse> responses;
  for (const pugi::xml_node child : root.children()) {
    if (isDAV(child, "response")) readResponse(child, &responses);
  }
  return responses;
}

}  // namespace ombra
