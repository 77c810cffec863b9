// The bytes a USB device or the kernel hands the watcher: a string descriptor answer (with any
// transferred length) and the sysfs "descriptors" attribute (device descriptor and interface
// classes). The first byte picks the parser; the rest is its input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Common.h"
#include "ListenDeviceChangeMac.h"
#include "UsbSysfsLinux.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t selector = data[0];
  const std::vector<unsigned char> bytes(data + 1, data + size);  // exact size for ASan
  if (selector % 2 == 0) {
    // A 256-byte answer buffer as the watcher passes it; wLenDone from the input, capped.
    unsigned char buffer[256] = {};
    const size_t n = std::min(bytes.size(), sizeof buffer);
    std::copy_n(bytes.begin(), n, buffer);
    const uint32_t transferred =
        std::min<uint32_t>(static_cast<uint32_t>(selector / 2 % 2 == 0 ? n : (selector * 7u) % 257), 256);
    const std::string text = DecodeStringDescriptor(0, buffer, transferred);
    // Valid UTF-8 of at most three bytes per transferred unit, and never a zero byte inside.
    if (text.size() > transferred / 2 * 3 || text.find('\0') != std::string::npos || Latin1FallbackUtf8(text) != text) {
      std::abort();
    }
  } else {
    UsbDeviceDescriptorFields fields;
    (void)ParseDeviceDescriptor(bytes.data(), bytes.size(), &fields);
    // One interface takes at least 9 bytes after the 18 of the device descriptor.
    std::vector<UsbClassCodes> interfaces;
    if (ParseInterfaceClasses(bytes.data(), bytes.size(), &interfaces) &&
        interfaces.size() > (bytes.size() - 18) / 9) {
      std::abort();
    }
  }
  return 0;
}
