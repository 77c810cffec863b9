// Built on macOS only, against Apple's headers: holds them to the layout, values and IDs that the
// stand-in in include/ declares, so that what passes here against the stand-in means the same
// against the real frameworks. Failing checks stop the build; the UUIDs are compared at run time.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFPlugIn.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/IOMessage.h>
#include <IOKit/usb/IOUSBLib.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#define SLOT(table, name, index) \
  static_assert(offsetof(table, name) == (index) * sizeof(void*), #table "::" #name " slot")

SLOT(IOCFPlugInInterface, QueryInterface, 1);
SLOT(IOCFPlugInInterface, Release, 3);
SLOT(IOUSBDeviceInterface942, Release, 3);
SLOT(IOUSBDeviceInterface942, USBDeviceOpen, 8);
SLOT(IOUSBDeviceInterface942, GetDeviceVendor, 13);
SLOT(IOUSBDeviceInterface942, GetDeviceProduct, 14);
SLOT(IOUSBDeviceInterface942, GetNumberOfConfigurations, 19);
SLOT(IOUSBDeviceInterface942, GetConfigurationDescriptorPtr, 21);
SLOT(IOUSBDeviceInterface942, DeviceRequest, 26);
SLOT(IOUSBDeviceInterface942, USBDeviceOpenSeize, 29);
SLOT(IOUSBDeviceInterface942, DeviceRequestTO, 30);
SLOT(IOUSBDeviceInterface942, USBGetManufacturerStringIndex, 34);
SLOT(IOUSBDeviceInterface942, USBGetProductStringIndex, 35);

static_assert(sizeof(IOUSBDevRequestTO) == 32 && offsetof(IOUSBDevRequestTO, pData) == 8 &&
              offsetof(IOUSBDevRequestTO, wLenDone) == 16 &&
              offsetof(IOUSBDevRequestTO, completionTimeout) == 24, "IOUSBDevRequestTO layout");
static_assert(sizeof(CFUUIDBytes) == 16 && sizeof(io_object_t) == 4 && sizeof(io_name_t) == 128, "sizes");
static_assert(kIOMessageServiceIsTerminated == 0xE0000010u, "termination message");
static_assert(kIOReturnNoMemory == static_cast<IOReturn>(0xE00002BD) &&
              kIOReturnUnsupported == static_cast<IOReturn>(0xE00002C7), "IOReturn codes");
static_assert(kIORegistryIterateRecursively == 1 && kCFStringEncodingUTF8 == 0x08000100, "values");
static_assert(E_NOINTERFACE == static_cast<HRESULT>(0x80000004) && S_OK == 0, "COM results");

int main() {
  const struct {
    const char* name;
    CFUUIDRef id;
    unsigned char bytes[16];
  } ids[] = {
      {"kIOCFPlugInInterfaceID", kIOCFPlugInInterfaceID,
       {0xC2, 0x44, 0xE8, 0x58, 0x10, 0x9C, 0x11, 0xD4, 0x91, 0xD4, 0x00, 0x50, 0xE4, 0xC6, 0x42, 0x6F}},
      {"kIOUSBDeviceUserClientTypeID", kIOUSBDeviceUserClientTypeID,
       {0x9D, 0xC7, 0xB7, 0x80, 0x9E, 0xC0, 0x11, 0xD4, 0xA5, 0x4F, 0x00, 0x0A, 0x27, 0x05, 0x28, 0x61}},
      {"kIOUSBDeviceInterfaceID500", kIOUSBDeviceInterfaceID500,
       {0xA3, 0x3C, 0xF0, 0x47, 0x4B, 0x5B, 0x48, 0xE2, 0xB5, 0x7D, 0x02, 0x07, 0xFC, 0xEA, 0xE1, 0x3B}},
      {"kIOUSBDeviceInterfaceID650", kIOUSBDeviceInterfaceID650,
       {0x4A, 0xAC, 0x1B, 0x2E, 0x24, 0xC2, 0x47, 0x6A, 0x96, 0x4D, 0x91, 0x33, 0x35, 0x34, 0xF2, 0xCC}},
      {"kIOUSBDeviceInterfaceID942", kIOUSBDeviceInterfaceID942,
       {0x56, 0xAD, 0x08, 0x9D, 0x87, 0x8D, 0x4B, 0xEA, 0xA1, 0xF5, 0x2C, 0x8D, 0xC4, 0x3E, 0x8A, 0x98}},
  };
  int failures = 0;
  for (const auto& id : ids) {
    const CFUUIDBytes bytes = CFUUIDGetUUIDBytes(id.id);
    if (std::memcmp(&bytes, id.bytes, sizeof bytes) != 0) {
      std::printf("%s differs from the stand-in\n", id.name);
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
