// Stand-in: the part of CoreFoundation that the macOS USB source uses, with Apple's names, types
// and values (CFBase, CFString, CFUUID, CFRunLoop, CFPlugInCOM). Behaviour: IOKitStandIn.cpp.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {  // the stand-in is only ever compiled as C++

typedef uint8_t UInt8;
typedef uint16_t UInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef unsigned char Boolean;
typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef UInt32 CFStringEncoding;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;
typedef const struct __CFUUID* CFUUIDRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopSource* CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;

enum { kCFStringEncodingUTF8 = 0x08000100 };

extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFRunLoopMode kCFRunLoopDefaultMode;

void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);

CFTypeID CFStringGetTypeID(void);
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize, CFStringEncoding encoding);
CFStringRef __CFStringMakeConstantString(const char* text);
#define CFSTR(text) __CFStringMakeConstantString("" text "")

typedef struct {
  UInt8 byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7;
  UInt8 byte8, byte9, byte10, byte11, byte12, byte13, byte14, byte15;
} CFUUIDBytes;
CFUUIDRef CFUUIDGetConstantUUIDWithBytes(CFAllocatorRef, UInt8, UInt8, UInt8, UInt8, UInt8, UInt8, UInt8, UInt8,
                                         UInt8, UInt8, UInt8, UInt8, UInt8, UInt8, UInt8, UInt8);
CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid);

// A version 0 source: it fires (perform, on the loop's thread) once signalled and the loop runs.
typedef struct {
  CFIndex version;
  void* info;
  void *retain, *release, *copyDescription, *equal, *hash, *schedule, *cancel;  // not used here
  void (*perform)(void* info);
} CFRunLoopSourceContext;

CFRunLoopRef CFRunLoopGetCurrent(void);
void CFRunLoopRun(void);
void CFRunLoopStop(CFRunLoopRef loop);
void CFRunLoopWakeUp(CFRunLoopRef loop);
void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);
CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef allocator, CFIndex order, CFRunLoopSourceContext* context);
void CFRunLoopSourceSignal(CFRunLoopSourceRef source);
void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source);

// COM conventions of CFPlugIn: the first slots of every interface table.
typedef SInt32 HRESULT;
typedef UInt32 ULONG;
typedef void* LPVOID;
typedef CFUUIDBytes REFIID;
#define S_OK ((HRESULT)0x00000000)
#define E_NOINTERFACE ((HRESULT)0x80000004)
#define IUNKNOWN_C_GUTS                                                      \
  void* _reserved;                                                           \
  HRESULT (*QueryInterface)(void* thisPointer, REFIID iid, LPVOID* ppv);     \
  ULONG (*AddRef)(void* thisPointer);                                        \
  ULONG (*Release)(void* thisPointer)

}
