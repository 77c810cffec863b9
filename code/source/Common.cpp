#include "Common.h"

std::string GetLowerCaseString(const std::string& text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

namespace {

// Length of the well-formed UTF-8 sequence at text[at] (no overlong forms, no surrogates, nothing
// past U+10FFFF), or 0 when there is none.
size_t Utf8SequenceLength(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

std::string Latin1FallbackUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t length = Utf8SequenceLength(text, at);
    if (length > 0) {
      out.append(text, at, length);
      at += length;
      continue;
    }
    const auto latin1 = static_cast<unsigned char>(text[at++]);
    out.push_back(static_cast<char>(0xC0 | (latin1 >> 6)));
    out.push_back(static_cast<char>(0x80 | (latin1 & 0x3F)));
  }
  return out;
}
