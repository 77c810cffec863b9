// What the Linux USB source reads from sysfs, as plain functions over bytes: the device
// descriptor at the head of the binary "descriptors" attribute and the interfaces after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "UsbPlatform.h"

struct UsbDeviceDescriptorFields {
  uint16_t vid = 0;
  uint16_t pid = 0;
  uint8_t manufacturer_index = 0;
  uint8_t product_index = 0;
  UsbClassCodes device_class;
};

// The fields of the 18-byte device descriptor that "descriptors" starts with; false when the
// bytes do not start with one.
bool ParseDeviceDescriptor(const unsigned char* data, size_t size, UsbDeviceDescriptorFields* fields);

// The interface descriptors among the configuration descriptors that follow the device
// descriptor in "descriptors"; false when there are none or the bytes do not chain.
bool ParseInterfaceClasses(const unsigned char* data, size_t size,
                           std::vector<UsbClassCodes>* interfaces);
