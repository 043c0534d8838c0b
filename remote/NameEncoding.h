// Names of servers that do not speak UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Conversion between UTF-8 text and the bytes of a named character encoding, such that nothing is lost:
//
// - ASCII is itself, always, so that "/" and "%" mean the same on both sides.
// - A character that the encoding lacks is written to the server as "%uXXXX" ("%UXXXXXX" beyond 16 bits), a
//   byte of text that is not UTF-8 as "%uDCXX".
// - A byte of the server that the encoding does not know is shown as "%XX" (80 to FF).
// - What looks like such an escape but is only a name is told apart by its percent signs: before an escape's
//   body 2n + 1 of them stand for n percent signs and the escaped item, 2n of them for n percent signs and
//   the body itself.
//
// So every listed name, converted to text and back, is the name that was listed. Text that is sent and listed
// again is the same text, except where it spells out raw bytes ("%B0%A1") that together are a character of a
// multi-byte encoding: it is then listed as that character.
//
// Made for one encoding; not thread-safe (the system's converters are not): one per thread.
class NameEncoding {
 public:
  // An encoding that the system does not know converts nothing: both directions are the identity.
  explicit NameEncoding(const std::string& name);
  ~NameEncoding();
  NameEncoding(const NameEncoding&) = delete;
  NameEncoding& operator=(const NameEncoding&) = delete;

  bool isKnown() const;
  std::string bytesForText(std::string_view text);
  std::string textForBytes(std::string_view bytes);

  // The calling thread's converter for `name`, made on first use.
  static NameEncoding& threadEncoding(const std::string& name);
  // Whether `name` is a spelling of UTF-8.
  static bool isUTF8(std::string_view name);

 private:
  // The bytes of one code point, empty when the encoding lacks it.
  std::string encode(char32_t character);
  // The length of the character at the start of `bytes` (0: none there) and its UTF-8 in `text`.
  size_t decode(std::string_view bytes, std::string* text);
  // Whether the byte alone is no character.
  bool isForeign(char byte);

  void* iToBytes;  // iconv descriptors; (iconv_t)-1 when unknown
  void* iToText;
};

}  // namespace ombra
