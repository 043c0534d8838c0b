#include "remote/webdav/XMLCutter.h"

#include <algorithm>

namespace ombra {

namespace {

// Within these, a document of two or four bytes a character has a zero byte.
constexpr size_t kCharacterTest = 4;

constexpr std::string_view kBlanks = " \t\r\n";

// The name in "<name ...>".
std::string_view nameInStartTag(std::string_view tag) {
  tag.remove_prefix(1);
  return tag.substr(0, tag.find_first_of(" \t\r\n/>"));
}

}  // namespace

bool XMLCutter::add(std::string_view bytes) {
  if (iIsRefused || iIsTerminated) return !iIsRefused;
  const size_t zero = iIsWhole ? std::string_view::npos : bytes.find('\0');
  const std::string_view text = bytes.substr(0, zero);
  if (!iIsWhole && !scan(text)) return false;
  iLength += text.size();
  if (zero != std::string_view::npos) {
    // Some servers send the zero byte that their document ends with.
    iIsTerminated = iPhase == Phase::kAfter;
    if (iIsTerminated) return true;
    if (iLength >= kCharacterTest) return refuse("it has a zero byte");
    iIsWhole = true;
    bytes.remove_prefix(zero);
  }
  if (!iIsWhole) return true;
  iOpening += bytes;
  return iOpening.size() <= kLongestWhole || refuse("it is too long");
}

bool XMLCutter::finish() {
  if (iIsRefused) return false;
  if (iIsWhole) return true;
  if (iPhase == Phase::kBefore && iState == State::kText) return refuse("it has no document element");
  const bool isComplete = iPhase == Phase::kAfter && iState == State::kText;
  return isComplete || refuse("it ends too early");
}

void XMLCutter::takeElements(std::string* elements) {
  elements->append(iElements, 0, iComplete);
  iElements.erase(0, iComplete);
  iComplete = 0;
}

bool XMLCutter::scan(std::string_view bytes) {
  const bool isKept = iPhase == Phase::kBefore || iState != State::kText || iDepth > 1;
  iSpan = isKept ? 0 : kNone;
  size_t at = 0;
  while (at < bytes.size()) {
    bool isSound = true;
    switch (iState) {
      case State::kText:
        at = skipText(bytes, at);
        break;
      case State::kMark:
        isSound = takeAfterMark(bytes, at++);
        break;
      case State::kWord:
        isSound = takeWord(bytes[at++]);
        break;
      case State::kUntil:
        at = skipUntil(bytes, at);
        if (iState == State::kText) isSound = endMark(bytes, at);
        break;
      case State::kStartTag:
        at = skipStartTag(bytes, at);
        if (iState == State::kText) isSound = endStartTag(bytes, at);
        break;
      case State::kQuoted:
        at = skipQuoted(bytes, at);
        break;
      case State::kEndTag:
        at = skipEndTag(bytes, at);
        if (iState == State::kText) isSound = closeElement(bytes, at);
        break;
    }
    if (!isSound) return false;
  }
  if (iSpan != kNone) keep(bytes, bytes.size());
  return !isTooLong() || refuse("it has an element that is too long");
}

size_t XMLCutter::skipText(std::string_view bytes, size_t at) {
  const size_t mark = bytes.find('<', at);
  if (mark == std::string_view::npos) return bytes.size();
  if (iSpan == kNone) iSpan = mark;
  iState = State::kMark;
  return mark + 1;
}

bool XMLCutter::takeAfterMark(std::string_view bytes, size_t at) {
  const char c = bytes[at];
  switch (c) {
    case '!':
      iState = State::kWord;
      iWord = {};
      return true;
    case '?':
      begin(State::kUntil, '?', 1);
      return true;
    case '/':
      iState = State::kEndTag;
      return true;
    case '>':
    case '<':
      return refuse("it is not well-formed");
    default:
      if (iPhase == Phase::kAfter) return refuse("it goes on after its end");
      // Until the root has come, all is kept, so that the last of it is the mark.
      if (iPhase == Phase::kBefore) iRootAt = iOpening.size() + at - iSpan - 1;
      iState = State::kStartTag;
      iBefore = c;
      return true;
  }
}

// Declarations are in document types alone, and those have no use here but to make documents grow.
bool XMLCutter::takeWord(char c) {
  if (iWord.empty()) {
    if (c == '-') {
      iWord = "-";
    } else if (c == '[') {
      iWord = "CDATA[";
    } else {
      return refuse("it has a document type");
    }
    return true;
  }
  if (c != iWord.front()) return refuse("it is not well-formed");
  const bool isComment = c == '-';
  iWord.remove_prefix(1);
  if (iWord.empty()) begin(State::kUntil, isComment ? '-' : ']', 2);
  return true;
}

void XMLCutter::begin(State state, char last, int lasts) {
  iState = state;
  iLast = last;
  iLasts = lasts;
  iSeen = 0;
}

size_t XMLCutter::skipUntil(std::string_view bytes, size_t at) {
  while (at < bytes.size()) {
    const char c = bytes[at++];
    if (c == iLast) {
      iSeen = std::min(iSeen + 1, iLasts);
    } else if (c == '>' && iSeen == iLasts) {
      iState = State::kText;
      return at;
    } else {
      iSeen = 0;
      // Nothing ends before the next of them.
      at = std::min(bytes.find(iLast, at), bytes.size());
    }
  }
  return at;
}

size_t XMLCutter::skipStartTag(std::string_view bytes, size_t at) {
  for (; at < bytes.size(); ++at) {
    const char c = bytes[at];
    if (c == '>') {
      iState = State::kText;
      return at + 1;
    }
    if (c == '"' || c == '\'') {
      iState = State::kQuoted;
      iQuote = c;
      return at + 1;
    }
    iBefore = c;
  }
  return at;
}

size_t XMLCutter::skipQuoted(std::string_view bytes, size_t at) {
  const size_t quote = bytes.find(iQuote, at);
  if (quote == std::string_view::npos) return bytes.size();
  iState = State::kStartTag;
  iBefore = iQuote;
  return quote + 1;
}

size_t XMLCutter::skipEndTag(std::string_view bytes, size_t at) {
  const size_t end = bytes.find('>', at);
  if (end == std::string_view::npos) return bytes.size();
  iState = State::kText;
  return end + 1;
}

bool XMLCutter::endStartTag(std::string_view bytes, size_t end) {
  const bool isEmpty = iBefore == '/';
  if (iPhase == Phase::kBefore) return openRoot(bytes, end, isEmpty);
  if (!isEmpty) ++iDepth;
  return endMark(bytes, end);
}

bool XMLCutter::openRoot(std::string_view bytes, size_t end, bool isEmpty) {
  keep(bytes, end);
  if (isTooLong()) return refuse("it begins with too much");
  iPhase = isEmpty ? Phase::kAfter : Phase::kInside;
  if (isEmpty) return true;
  iDepth = 1;
  iClosing.assign("</").append(nameInStartTag(std::string_view(iOpening).substr(iRootAt))).append(">");
  return true;
}

bool XMLCutter::closeElement(std::string_view bytes, size_t end) {
  if (iDepth == 0) return refuse("it is no document: an end tag without its start");
  --iDepth;
  return iDepth == 0 ? closeRoot(bytes, end) : endMark(bytes, end);
}

bool XMLCutter::closeRoot(std::string_view bytes, size_t end) {
  keep(bytes, end);
  // Blanks may stand behind the name.
  std::string_view tag = std::string_view(iElements).substr(iComplete);
  tag.remove_suffix(1);
  tag.remove_suffix(tag.size() - (tag.find_last_not_of(kBlanks) + 1));
  const bool fits = tag == std::string_view(iClosing).substr(0, iClosing.size() - 1);
  iElements.resize(iComplete);
  iPhase = Phase::kAfter;
  return fits || refuse("its tags mismatch");
}

bool XMLCutter::endMark(std::string_view bytes, size_t end) {
  // Before the root, and inside of an element, what follows is kept as well.
  if (iPhase == Phase::kBefore || iDepth > 1) return true;
  keep(bytes, end);
  if (isTooLong()) return refuse("it has an element that is too long");
  iComplete = iElements.size();
  return true;
}

void XMLCutter::keep(std::string_view bytes, size_t end) {
  std::string& kept = iPhase == Phase::kBefore ? iOpening : iElements;
  kept.append(bytes, iSpan, end - iSpan);
  iSpan = kNone;
}

bool XMLCutter::isTooLong() const {
  return iPhase == Phase::kBefore ? iOpening.size() > kLongestOpening
                                  : iElements.size() - iComplete > kLongestElement;
}

bool XMLCutter::refuse(std::string_view reason) {
  iIsRefused = true;
  iReason = reason;
  iElements = {};
  iOpening = {};
  iComplete = 0;
  return false;
}

}  // namespace ombra
