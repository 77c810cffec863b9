// Stand-in: IOCFPlugIn.h, the plug-in through which a user client's interfaces are reached.
#pragma once

#include <IOKit/IOKitLib.h>

extern "C" {

#define kIOCFPlugInInterfaceID                                                                 \
  CFUUIDGetConstantUUIDWithBytes(NULL, 0xC2, 0x44, 0xE8, 0x58, 0x10, 0x9C, 0x11, 0xD4, 0x91, \
                                 0xD4, 0x00, 0x50, 0xE4, 0xC6, 0x42, 0x6F)

typedef struct IOCFPlugInInterfaceStruct {
  IUNKNOWN_C_GUTS;
  // Apple's table goes on (version, Probe, Start, Stop), none of it used here.
} IOCFPlugInInterface;

kern_return_t IOCreatePlugInInterfaceForService(io_service_t service, CFUUIDRef pluginType, CFUUIDRef interfaceType,
                                                IOCFPlugInInterface*** theInterface, SInt32* theScore);

}
