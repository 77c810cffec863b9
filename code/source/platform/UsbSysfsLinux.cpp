#include "UsbSysfsLinux.h"

#include "Common.h"

namespace {

constexpr size_t kDeviceDescriptorLength = 18;
constexpr uint8_t kDeviceDescriptorType = 1;
constexpr uint8_t kStringDescriptorType = 3;
constexpr uint8_t kInterfaceDescriptorType = 4;
constexpr size_t kInterfaceDescriptorLength = 9;
constexpr size_t kMaxStringUnits = (255 - 2) / 2;
constexpr char32_t kReplacementCharacter = 0xFFFD;

uint16_t Little16(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
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

bool ParseInterfaceClasses(const unsigned char* data, size_t size,
                           std::vector<UsbInterfaceClass>* interfaces) {
  interfaces->clear();
  if (data == nullptr || size < kDeviceDescriptorLength) return false;
  for (size_t at = kDeviceDescriptorLength; at < size;) {
    const size_t length = data[at];
    if (length < 2 || at + length > size) return false;  // a descriptor that does not chain
    if (data[at + 1] == kInterfaceDescriptorType && length >= kInterfaceDescriptorLength) {
      interfaces->push_back({data[at + 5], data[at + 6], data[at + 7]});
    }
    at += length;
  }
  return !interfaces->empty();
}

std::vector<unsigned char> BuildStringDescriptorFromText(const std::string& utf8) {
  std::vector<unsigned char> descriptor = {0, kStringDescriptorType};
  size_t units = 0;
  for (size_t pos = 0; pos < utf8.size();) {
    char32_t code = kReplacementCharacter;
    if (!DecodeUtf8Sequence(utf8, &pos, &code)) ++pos;  // one byte that is no UTF-8 -> U+FFFD
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
