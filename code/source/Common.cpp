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
    AppendUtf8(&out, static_cast<unsigned char>(text[at++]));
  }
  return out;
}

void AppendUtf8(std::string* out, char32_t code) {
  const auto byte = [out](char32_t value) { out->push_back(static_cast<char>(value)); };
  if (code < 0x80) {
    byte(code);
  } else if (code < 0x800) {
    byte(0xC0 | (code >> 6));
    byte(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    byte(0xE0 | (code >> 12));
    byte(0x80 | ((code >> 6) & 0x3F));
    byte(0x80 | (code & 0x3F));
  } else {
    byte(0xF0 | (code >> 18));
    byte(0x80 | ((code >> 12) & 0x3F));
    byte(0x80 | ((code >> 6) & 0x3F));
    byte(0x80 | (code & 0x3F));
  }
}

std::string Utf16LeToUtf8(const unsigned char* data, size_t size) {
  constexpr char32_t kReplacement = 0xFFFD;
  const auto is_high = [](char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; };
  const auto is_low = [](char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; };
  const size_t units = size / 2;
  const auto unit_at = [data](size_t k) { return static_cast<char32_t>(data[2 * k] | (data[2 * k + 1] << 8)); };
  std::string out;
  for (size_t k = 0; k < units; ++k) {
    const char32_t unit = unit_at(k);
    if (unit == 0) break;
    if (is_high(unit) && k + 1 < units && is_low(unit_at(k + 1))) {
      AppendUtf8(&out, 0x10000 + ((unit - 0xD800) << 10) + (unit_at(++k) - 0xDC00));
    } else {
      AppendUtf8(&out, is_high(unit) || is_low(unit) ? kReplacement : unit);
    }
  }
  return out;
}
