// Takes a long XML document apart while it arrives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ombra {

// Cuts a document, which comes in pieces of any length, into its opening (what stands before the root's
// content, with the root's tag) and the elements directly in the root, comments and instructions among them.
// It looks for marks and quotes, no more: whether names, attributes and the tags of an element fit is found
// out by whoever reads the opening, some elements and `closing` as a small document.
//
// Refused, with the reason in words, is what ends too early, what has a document type, a zero byte or a
// second root, and what is longer than it should be. A document in UTF-16 or UTF-32 is not cut: its opening
// is all of it.
class XMLCutter {
 public:
  static constexpr size_t kLongestOpening = 64 * 1024;
  static constexpr size_t kLongestElement = size_t{8} << 20;
  static constexpr size_t kLongestWhole = size_t{64} << 20;  // that is not cut

  // False once the document is refused; what comes after that is ignored.
  [[nodiscard]] bool add(std::string_view bytes);
  // Nothing more comes.
  [[nodiscard]] bool finish();
  const std::string& reason() const { return iReason; }

  // Whether the root's tag has come.
  bool isOpened() const { return iPhase != Phase::kBefore; }
  bool isWhole() const { return iIsWhole; }
  const std::string& opening() const { return iOpening; }
  // The root's end; empty when its tag is an end as well.
  const std::string& closing() const { return iClosing; }
  bool hasElements() const { return iComplete > 0; }
  // Appends the elements that have come as a whole since the last call.
  void takeElements(std::string* elements);

 private:
  enum class Phase : uint8_t { kBefore, kInside, kAfter };
  enum class State : uint8_t {
    kText,
    kMark,   // "<" was the last byte
    kWord,   // "<!", and as much of what follows as iWord still lacks
    kUntil,  // in a comment, CDATA or an instruction
    kStartTag,
    kQuoted,  // in a start tag
    kEndTag,
  };

  bool scan(std::string_view bytes);
  // Each takes bytes from `at` on and answers where it ended.
  size_t skipText(std::string_view bytes, size_t at);
  size_t skipStartTag(std::string_view bytes, size_t at);
  size_t skipQuoted(std::string_view bytes, size_t at);
  size_t skipEndTag(std::string_view bytes, size_t at);
  size_t skipUntil(std::string_view bytes, size_t at);
  bool takeAfterMark(std::string_view bytes, size_t at);
  bool takeWord(char c);
  void begin(State state, char last, int lasts);
  // A mark that ends before bytes[end].
  bool endMark(std::string_view bytes, size_t end);
  bool endStartTag(std::string_view bytes, size_t end);
  bool closeElement(std::string_view bytes, size_t end);
  bool openRoot(std::string_view bytes, size_t end, bool isEmpty);
  bool closeRoot(std::string_view bytes, size_t end);
  void keep(std::string_view bytes, size_t end);
  bool isTooLong() const;
  bool refuse(std::string_view reason);

  static constexpr size_t kNone = SIZE_MAX;

  std::string iOpening;
  std::string iClosing;
  std::string iElements;
  size_t iComplete = 0;    // of iElements, in whole elements
  size_t iSpan = kNone;    // where what is to be kept begins in the bytes at hand
  size_t iLength = 0;      // of all bytes before these
  size_t iDepth = 0;       // of open elements
  size_t iRootAt = 0;      // of iOpening: where the root's tag begins
  std::string_view iWord;  // what has to follow
  Phase iPhase = Phase::kBefore;
  State iState = State::kText;
  // kUntil: the end is `iLasts` times `iLast`, and ">". `iSeen` of them have come without anything between.
  char iLast = 0;
  int iLasts = 0;
  int iSeen = 0;
  char iQuote = 0;   // kQuoted: what ends it
  char iBefore = 0;  // kStartTag: the byte before
  bool iIsWhole = false;
  bool iIsTerminated = false;  // by a zero byte: what follows is no part of it
  bool iIsRefused = false;
  std::string iReason;
};

}  // namespace ombra
