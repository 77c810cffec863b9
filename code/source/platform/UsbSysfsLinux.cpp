#include "UsbSysfsLinux.h"

namespace {

constexpr size_t kDeviceDescriptorLength = 18;
constexpr uint8_t kDeviceDescriptorType = 1;
constexpr uint8_t kInterfaceDescriptorType = 4;
constexpr size_t kInterfaceDescriptorLength = 9;

uint16_t Little16(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

}  // namespace

bool ParseDeviceDescriptor(const unsigned char* data, size_t size, UsbDeviceDescriptorFields* fields) {
  if (data == nullptr || size < kDeviceDescriptorLength) return false;
  if (data[0] != kDeviceDescriptorLength || data[1] != kDeviceDescriptorType) return false;
  fields->vid = Little16(data + 8);
  fields->pid = Little16(data + 10);
  fields->manufacturer_index = data[14];
  fields->product_index = data[15];
  fields->device_class = {data[4], data[5], data[6]};
  return true;
}

bool ParseInterfaceClasses(const unsigned char* data, size_t size,
                           std::vector<UsbClassCodes>* interfaces) {
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
