// The tag scan of XML property lists.
#include <string_view>

#include "platform/foundation/PropertyListScan.h"

namespace ombra {
namespace {

class TagScanner {
 public:
  explicit TagScanner(std::string_view text) : iText(text) {}

  bool scan() {
    if (iText.size() > kMaximumPropertyListSize) return refuse("it is too large");
    if (iText.find('\0') != std::string_view::npos) return refuse("it holds a NUL");
    while (iFault.empty() && seek("<")) readMarkup();
    if (iFault.empty() && iDepth != 0) refuse("an element is not closed");
    if (iFault.empty() && iElements == 0) refuse("it is no property list");
    return iFault.empty();
  }
  std::string_view fault() const { return iFault; }

 private:
  bool refuse(std::string_view fault) {
    iFault = fault;
    return false;
  }

  // Moves behind the next `mark`; false when there is none.
  bool seek(std::string_view mark) {
    const size_t found = iText.find(mark, iAt);
    iAt = found == std::string_view::npos ? iText.size() : found + mark.size();
    return found != std::string_view::npos;
  }

  bool take(std::string_view mark) {
    if (!iText.substr(iAt).starts_with(mark)) return false;
    iAt += mark.size();
    return true;
  }

  void readMarkup() {
    if (take("!--")) {
      if (!seek("-->")) refuse("a comment has no end");
    } else if (take("?")) {
      if (!seek("?>")) refuse("an instruction has no end");
    } else if (take("!")) {
      readDocumentType();
    } else {
      readTag();
    }
  }

  void readDocumentType() {
    const size_t begin = iAt;
    if (!take("DOCTYPE") || !seek(">")) {
      refuse("it holds a section of an unknown kind");
      return;
    }
    if (iText.substr(begin, iAt - begin).find('[') != std::string_view::npos) refuse("it declares entities");
  }

  void readTag() {
    const size_t begin = iAt;
    if (!seek(">")) {
      refuse("an element is cut off");
      return;
    }
    const std::string_view tag = iText.substr(begin, iAt - 1 - begin);
    // A "<" or a quoted ">" would let this scan and the parser see different elements.
    if (tag.empty() || tag.find('<') != std::string_view::npos) {
      refuse("an element is malformed");
    } else if (tag.find('"') != std::string_view::npos && tag != "plist version=\"1.0\"") {
      refuse("an element has attributes");
    } else if (tag.front() == '/') {
      if (iDepth-- == 0) refuse("an element is closed that was not open");
    } else {
      open(tag.back() == '/');
    }
  }

  void open(bool closesItself) {
    if (++iElements > kMaximumPropertyListNodes) refuse("it holds too many elements");
    if (!closesItself && ++iDepth > kMaximumPropertyListDepth) refuse("it is nested too deeply");
  }

  std::string_view iText;
  std::string_view iFault;
  size_t iAt = 0;
  uint64_t iElements = 0;
  unsigned iDepth = 0;
};

}  // namespace

bool scanXMLPropertyList(std::span<const uint8_t> data, std::string* reason) {
  TagScanner scanner({reinterpret_cast<const char*>(data.data()), data.size()});
  const bool sound = scanner.scan();
  if (!sound && reason != nullptr) reason->assign("the property list is refused: ").append(scanner.fault());
  return sound;
}

}  // namespace ombra
