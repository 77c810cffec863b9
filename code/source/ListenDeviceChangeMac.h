// The USB hot-plug watcher: its thread, arrival and termination handling, string descriptors and
// the Android validity check. The logic is the same on every platform; the operating system is
// reached only through the platform interface of platform/UsbPlatform.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ListenDeviceChange.h"

class UsbPlatform;

class ListenDeviceChangeMac : public ListenDeviceChange {
 public:
  ~ListenDeviceChangeMac() override;
  // Starts the watcher thread (StartListenThread), detaches it and returns 0 at once. While a
  // watcher thread runs, a further call leaves it alone and returns 0.
  int StartListen() override;
  // Ends the watcher thread's event loop and waits (bounded) for the thread to finish; the
  // library itself never calls it. Does nothing when no thread runs.
  void StopListen() override;
  // The watcher thread's body: PELMORA_ERR_USB_WATCHER when set-up fails, 0 when the loop has
  // been stopped.
  int StartListenThread();

  // Waits until the watcher thread has handled the devices attached at its start (or has ended);
  // true when that happened within the timeout.
  bool WaitUntilListening(std::chrono::milliseconds timeout);
};

// The single watcher, created on first use and kept until the process ends.
ListenDeviceChange* GetListenDeviceChangeMacInstance();

// Whether a USB device that arrived with a serial number is recorded as an Android device.
bool IsAndroidValid(unsigned short vid, unsigned short pid, std::string serial);

// The text of a string descriptor answer: result is the transfer's code, data the buffer and
// wLenDone the bytes transferred. Empty unless the transfer succeeded, the type byte is 3 and
// bLength equals wLenDone; then its UTF-16LE text as UTF-8 (Utf16LeToUtf8 of Common.h), up to the
// first unit 0x0000.
std::string DecodeStringDescriptor(int result, const unsigned char* data, uint32_t wLenDone);

// Where the watcher thread gets its platform from: CreateUsbPlatform() unless a factory is set
// here (tests drive the logic through a simulated platform). Takes effect at the next start.
using UsbPlatformFactory = std::function<std::unique_ptr<UsbPlatform>()>;
void SetUsbPlatformFactory(UsbPlatformFactory factory);
