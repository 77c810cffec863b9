// Stand-in: the part of IOUSBLib.h (with USB.h and USBSpec.h) that the macOS USB source uses.
// The device interface table keeps Apple's slot order up to the last slot used; slots the source
// never calls are plain pointers.
#pragma once

#include <IOKit/IOCFPlugIn.h>

extern "C" {

#define kIOUSBDeviceClassName "IOUSBDevice"
#define kUSBSerialNumberString "USB Serial Number"
#define kUSBVendorString "USB Vendor Name"
#define kUSBProductString "USB Product Name"

#define kIOUSBDeviceUserClientTypeID                                                           \
  CFUUIDGetConstantUUIDWithBytes(NULL, 0x9D, 0xC7, 0xB7, 0x80, 0x9E, 0xC0, 0x11, 0xD4, 0xA5, \
                                 0x4F, 0x00, 0x0A, 0x27, 0x05, 0x28, 0x61)
#define kIOUSBDeviceInterfaceID500                                                             \
  CFUUIDGetConstantUUIDWithBytes(NULL, 0xA3, 0x3C, 0xF0, 0x47, 0x4B, 0x5B, 0x48, 0xE2, 0xB5, \
                                 0x7D, 0x02, 0x07, 0xFC, 0xEA, 0xE1, 0x3B)
#define kIOUSBDeviceInterfaceID650                                                             \
  CFUUIDGetConstantUUIDWithBytes(NULL, 0x4A, 0xAC, 0x1B, 0x2E, 0x24, 0xC2, 0x47, 0x6A, 0x96, \
                                 0x4D, 0x91, 0x33, 0x35, 0x34, 0xF2, 0xCC)
#define kIOUSBDeviceInterfaceID942                                                             \
  CFUUIDGetConstantUUIDWithBytes(NULL, 0x56, 0xAD, 0x08, 0x9D, 0x87, 0x8D, 0x4B, 0xEA, 0xA1, \
                                 0xF5, 0x2C, 0x8D, 0xC4, 0x3E, 0x8A, 0x98)

// A control request with its own time limits, in milliseconds.
typedef struct {
  UInt8 bmRequestType, bRequest;
  UInt16 wValue, wIndex, wLength;
  void* pData;
  UInt32 wLenDone, noDataTimeout, completionTimeout;
} IOUSBDevRequestTO;

// The source walks a configuration's bytes, and so reads none of its fields by name.
typedef struct IOUSBConfigurationDescriptor IOUSBConfigurationDescriptor;
typedef IOUSBConfigurationDescriptor* IOUSBConfigurationDescriptorPtr;

typedef struct IOUSBDeviceStruct942 {
  IUNKNOWN_C_GUTS;
  void *CreateDeviceAsyncEventSource, *GetDeviceAsyncEventSource, *CreateDeviceAsyncPort, *GetDeviceAsyncPort;
  IOReturn (*USBDeviceOpen)(void* self);
  IOReturn (*USBDeviceClose)(void* self);
  IOReturn (*GetDeviceClass)(void* self, UInt8* devClass), (*GetDeviceSubClass)(void* self, UInt8* devSubClass),
      (*GetDeviceProtocol)(void* self, UInt8* devProtocol);
  IOReturn (*GetDeviceVendor)(void* self, UInt16* devVendor);
  IOReturn (*GetDeviceProduct)(void* self, UInt16* devProduct);
  void *GetDeviceReleaseNumber, *GetDeviceAddress, *GetDeviceBusPowerAvailable, *GetDeviceSpeed;
  IOReturn (*GetNumberOfConfigurations)(void* self, UInt8* numConfig);
  void* GetLocationID;
  IOReturn (*GetConfigurationDescriptorPtr)(void* self, UInt8 configIndex,
                                            IOUSBConfigurationDescriptorPtr* desc);
  void *GetConfiguration, *SetConfiguration, *GetBusFrameNumber, *ResetDevice, *DeviceRequest, *DeviceRequestAsync;
  void* CreateInterfaceIterator;
  IOReturn (*USBDeviceOpenSeize)(void* self);
  IOReturn (*DeviceRequestTO)(void* self, IOUSBDevRequestTO* req);
  void *DeviceRequestAsyncTO, *USBDeviceSuspend, *USBDeviceAbortPipeZero;
  IOReturn (*USBGetManufacturerStringIndex)(void* self, UInt8* msi);
  IOReturn (*USBGetProductStringIndex)(void* self, UInt8* psi);
  // Apple's table goes on (serial index, re-enumeration, power, notifications ...).
} IOUSBDeviceInterface942;

}
