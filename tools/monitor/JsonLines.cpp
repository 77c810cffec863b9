#include "JsonLines.h"

namespace monitor {

namespace {

bool IsJsonWhiteSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

void AppendControlEscape(unsigned char c, std::string* out) {
  static const char kHex[] = "0123456789abcdef";
  out->append("\\u00");
  out->push_back(kHex[c >> 4]);
  out->push_back(kHex[c & 0xF]);
}

// JsonCpp's reader takes "//" and "/* */" comments between tokens even in strict mode. Joining
// lines would let a "//" comment swallow the rest of the document, so comments go. Returns the
// index of the last byte of the comment that starts at i, or i itself when none starts there.
size_t SkipComment(const char* text, size_t length, size_t i) {
  if (text[i] != '/' || i + 1 >= length) return i;
  if (text[i + 1] == '/') {
    size_t j = i + 2;
    while (j < length && text[j] != '\n' && text[j] != '\r') ++j;
    return j - 1;
  }
  if (text[i + 1] == '*') {
    for (size_t j = i + 2; j + 1 < length; ++j) {
      if (text[j] == '*' && text[j + 1] == '/') return j + 1;
    }
    return length - 1;  // never closed: the reader refuses it, and it ends the line here too
  }
  return i;
}

}  // namespace

std::string CompactJson(const char* text, size_t length) {
  std::string out;
  out.reserve(length);
  bool in_string = false;
  bool escaped = false;
  for (size_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (!in_string) {
      if (IsJsonWhiteSpace(c)) continue;
      const size_t comment_end = SkipComment(text, length, i);
      if (comment_end != i) {
        i = comment_end;
        continue;
      }
      out.push_back(c);
      if (c == '"') in_string = true;
      continue;
    }
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20) {
      // An escape that a control byte ends is broken anyway; the byte itself must not break the line.
      AppendControlEscape(byte, &out);
      escaped = false;
      continue;
    }
    out.push_back(c);
    if (escaped) {
      escaped = false;
    } else if (c == '\\') {
      escaped = true;
    } else if (c == '"') {
      in_string = false;
    }
  }
  return out;
}

}  // namespace monitor
