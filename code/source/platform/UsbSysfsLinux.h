// What the Linux USB source reads from sysfs, as plain functions over bytes: the device
// descriptor at the head of the binary "descriptors" attribute, and string descriptors rebuilt
// from the kernel's "manufacturer"/"product" text for users who may not open the device node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UsbPlatform.h"

struct UsbDeviceDescriptorFields {
  uint16_t vid = 0;
  uint16_t pid = 0;
  uint8_t manufacturer_index = 0;
  uint8_t product_index = 0;
};

// The fields of the 18-byte device descriptor that "descriptors" starts with; false when the
// bytes do not start with one.
bool ParseDeviceDescriptor(const unsigned char* data, size_t size, UsbDeviceDescriptorFields* fields);

// The interface descriptors among the configuration descriptors that follow the device
// descriptor in "descriptors"; false when there are none or the bytes do not chain.
bool ParseInterfaceClasses(const unsigned char* data, size_t size,
                           std::vector<UsbInterfaceClass>* interfaces);

// The string descriptor a device would send for this text: bLength, type 3, then the text as
// UTF-16LE, cut to the 126 units that fit (never inside a surrogate pair). The kernel turned the
// device's UTF-16 into UTF-8 for sysfs; this turns it back. Bytes that are not valid UTF-8
// become U+FFFD.
std::vector<unsigned char> BuildStringDescriptorFromText(const std::string& utf8);

// String descriptor 0: the device's language table, here English (United States) alone.
std::vector<unsigned char> LanguageTableDescriptor();
