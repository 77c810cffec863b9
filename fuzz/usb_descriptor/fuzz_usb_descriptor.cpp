// The bytes a USB device or the kernel hands the watcher: a string descriptor answer (with any
// transferred length), the sysfs "descriptors" attribute (device descriptor and interface
// classes), and the sysfs string text that is
// turned back into a descriptor. The first byte picks the parser; the rest is its input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ListenDeviceChangeMac.h"
#include "UsbSysfsLinux.h"

namespace {

void CheckDecoded(const std::string& text, uint32_t transferred) {
  // At most one byte per transferred unit, and never a zero byte inside.
  if (text.size() > transferred / 2 + 1 || text.find('\0') != std::string::npos) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t selector = data[0];
  const unsigned char* bytes = data + 1;
  const size_t length = size - 1;
  switch (selector % 3) {
    case 0: {
      // A 256-byte answer buffer as the watcher passes it; wLenDone from the input, capped.
      unsigned char buffer[256] = {};
      const size_t n = length < sizeof buffer ? length : sizeof buffer;
      for (size_t i = 0; i < n; ++i) buffer[i] = bytes[i];
      const uint32_t transferred = static_cast<uint32_t>(selector / 3 % 2 == 0 ? n : (selector * 7u) % 257);
      const std::string text = DecodeStringDescriptor(0, buffer, transferred > 256 ? 256 : transferred);
      CheckDecoded(text, transferred);
      break;
    }
    case 1: {
      UsbDeviceDescriptorFields fields;
      const std::vector<unsigned char> copy(bytes, bytes + length);  // exact size for ASan
      (void)ParseDeviceDescriptor(copy.data(), copy.size(), &fields);
      std::vector<UsbInterfaceClass> interfaces;
      // One interface takes at least 9 bytes after the 18 of the device descriptor.
      if (ParseInterfaceClasses(copy.data(), copy.size(), &interfaces) &&
          interfaces.size() > (copy.size() - 18) / 9) {
        std::abort();
      }
      break;
    }
    case 2: {
      const std::string text(reinterpret_cast<const char*>(bytes), length);
      const std::vector<unsigned char> descriptor = BuildStringDescriptorFromText(text);
      // A well-formed descriptor the decoding accepts in full.
      if (descriptor.size() > 255 || descriptor.size() % 2 != 0 || descriptor[0] != descriptor.size() ||
          descriptor[1] != 3) {
        std::abort();
      }
      const std::string decoded = DecodeStringDescriptor(0, descriptor.data(), descriptor[0]);
      CheckDecoded(decoded, descriptor[0]);
      break;
    }
  }
  return 0;
}
