#include "UsbSysfsLinux.h"

namespace {

constexpr size_t kDeviceDescriptorLength = 18;
constexpr uint8_t kDeviceDescriptorType = 1;
constexpr uint8_t kStringDescriptorType = 3;
constexpr size_t kMaxStringUnits = (255 - 2) / 2;
constexpr char32_t kReplacementCharacter = 0xFFFD;

uint16_t Little16(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

// Decodes one UTF-8 sequence at text[*pos] and advances past it; an invalid or cut sequence
// yields U+FFFD and advances by one byte.
char32_t NextCodePoint(const std::string& text, size_t* pos) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(*pos);
  size_t length = 0;
  char32_t code = 0;
  char32_t minimum = 0;
  if (lead < 0x80) {
    ++*pos;
    return lead;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, code = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, code = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, code = lead & 0x07, minimum = 0x10000;
  } else {
    ++*pos;
    return kReplacementCharacter;
  }
  if (*pos + length > text.size()) {
    ++*pos;
    return kReplacementCharacter;
  }
  for (size_t i = 1; i < length; ++i) {
    if ((byte(*pos + i) & 0xC0) != 0x80) {
      ++*pos;
      return kReplacementCharacter;
    }
    code = (code << 6) | (byte(*pos + i) & 0x3F);
  }
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
    ++*pos;
    return kReplacementCharacter;
  }
  *pos += length;
  return code;
}

void AppendUnit(std::vector<unsigned char>* out, char32_t unit) {
  out->push_back(static_cast<unsigned char>(unit & 0xFF));
  out->push_back(static_cast<unsigned char>((unit >> 8) & 0xFF));
}

}  // namespace

bool ParseDeviceDescriptor(const unsigned char* data, size_t size, UsbDeviceDescriptorFields* fields) {
  if (data == nullptr || size < kDeviceDescriptorLength) return false;
  if (data[0] != kDeviceDescriptorLength || data[1] != kDeviceDescriptorType) return false;
  fields->vid = Little16(data + 8);
  fields->pid = Little16(data + 10);
  fields->manufacturer_index = data[14];
  fields->product_index = data[15];
  return true;
}

std::vector<unsigned char> BuildStringDescriptorFromText(const std::string& utf8) {
  std::vector<unsigned char> descriptor = {0, kStringDescriptorType};
  size_t units = 0;
  for (size_t pos = 0; pos < utf8.size();) {
    const char32_t code = NextCodePoint(utf8, &pos);
    if (code < 0x10000) {
      if (units + 1 > kMaxStringUnits) break;
      AppendUnit(&descriptor, code);
      units += 1;
    } else {
      if (units + 2 > kMaxStringUnits) break;
      const char32_t offset = code - 0x10000;
      AppendUnit(&descriptor, 0xD800 + (offset >> 10));
      AppendUnit(&descriptor, 0xDC00 + (offset & 0x3FF));
      units += 2;
    }
  }
  descriptor[0] = static_cast<unsigned char>(descriptor.size());
  return descriptor;
}

std::vector<unsigned char> LanguageTableDescriptor() { return {4, kStringDescriptorType, 0x09, 0x04}; }
