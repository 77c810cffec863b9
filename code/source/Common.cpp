#include "Common.h"

std::string GetLowerCaseString(const std::string& text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

bool DecodeUtf8Sequence(const std::string& text, size_t* at, char32_t* code) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(*at);
  if (lead < 0x80) {
    *code = lead;
    ++*at;
    return true;
  }
  size_t length = 0;
  char32_t value = 0;
  unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, value = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, value = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    return false;
  }
  if (*at + length > text.size()) return false;
  if (byte(*at + 1) < low || byte(*at + 1) > high) return false;
  for (size_t i = 1; i < length; ++i) {
    if (byte(*at + i) < 0x80 || byte(*at + i) > 0xBF) return false;
    value = (value << 6) | (byte(*at + i) & 0x3F);
  }
  *code = value;
  *at += length;
  return true;
}

std::string Latin1FallbackUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t start = at;
    char32_t ignored = 0;
    if (DecodeUtf8Sequence(text, &at, &ignored)) {
      out.append(text, start, at - start);
      continue;
    }
    const auto latin1 = static_cast<unsigned char>(text[at++]);
    out.push_back(static_cast<char>(0xC0 | (latin1 >> 6)));
    out.push_back(static_cast<char>(0x80 | (latin1 & 0x3F)));
  }
  return out;
}
