// Stand-in: the part of IOKitLib (with IOTypes, IOReturn and IOKitKeys) that the macOS USB source
// uses, with Apple's names, types and values. Behaviour: IOKitStandIn.cpp.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

extern "C" {

typedef unsigned int natural_t;
typedef natural_t mach_port_t;
typedef int kern_return_t;
typedef kern_return_t IOReturn;
typedef UInt32 IOOptionBits;
typedef mach_port_t io_object_t;
typedef io_object_t io_service_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef char io_name_t[128];

#define MACH_PORT_NULL ((mach_port_t)0)
#define KERN_SUCCESS 0

// IOReturn codes: system 0x38 (IOKit), subsystem 0 (common), in the high bits.
#define kIOReturnSuccess KERN_SUCCESS
#define kIOReturnNoMemory ((IOReturn)0xE00002BD)
#define kIOReturnUnsupported ((IOReturn)0xE00002C7)

#define kIOServicePlane "IOService"
#define kIOFirstMatchNotification "IOServiceFirstMatch"
#define kIOGeneralInterest "IOGeneralInterest"

enum { kIORegistryIterateRecursively = 0x00000001 };

typedef struct IONotificationPort* IONotificationPortRef;
typedef void (*IOServiceMatchingCallback)(void* refcon, io_iterator_t iterator);
typedef void (*IOServiceInterestCallback)(void* refcon, io_service_t service, uint32_t messageType,
                                          void* messageArgument);

IONotificationPortRef IONotificationPortCreate(mach_port_t mainPort);
void IONotificationPortDestroy(IONotificationPortRef notify);
CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef notify);

kern_return_t IOObjectRelease(io_object_t object);
io_object_t IOIteratorNext(io_iterator_t iterator);

CFMutableDictionaryRef IOServiceMatching(const char* name);
kern_return_t IOServiceAddMatchingNotification(IONotificationPortRef notifyPort, const io_name_t notificationType,
                                               CFDictionaryRef matching, IOServiceMatchingCallback callback,
                                               void* refCon, io_iterator_t* notification);
kern_return_t IOServiceAddInterestNotification(IONotificationPortRef notifyPort, io_service_t service,
                                               const io_name_t interestType, IOServiceInterestCallback callback,
                                               void* refCon, io_object_t* notification);
CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits options);
CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane, CFStringRef key,
                                          CFAllocatorRef allocator, IOOptionBits options);

}
