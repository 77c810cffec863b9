// Simulated USB devices for the Linux source, on umockdev: a sysfs with the attributes the kernel
// gives a USB device, uevents of our making and, where asked, a device node whose
// USBDEVFS_CONTROL requests a handler answers. The process must run with umockdev's preload
// library (LD_PRELOAD=libumockdev-preload.so.0, or under umockdev-wrapper).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct SimulatedUsbDevice {
  int number = 0;  // device address on bus 1; also names the sysfs path
  std::optional<std::string> serial;
  uint16_t vid = 0, pid = 0;
  uint8_t manufacturer_index = 1, product_index = 2, device_class = 0;
  // The kernel's UTF-8 copies in sysfs; absent attributes when not set.
  std::optional<std::string> sysfs_manufacturer;
  std::optional<std::string> sysfs_product;
  // The "descriptors" attribute; when not set, the device descriptor of the fields above, then one
  // configuration with these interfaces (class, subclass, protocol), if any.
  std::optional<std::vector<unsigned char>> descriptors;
  std::vector<std::array<uint8_t, 3>> interfaces;
  // With a device node: string descriptors by index, as UTF-16 code units; any other index stalls.
  bool has_node = false;
  std::map<uint8_t, std::u16string> strings;
  int fail_with_errno = 0;  // every control transfer fails with this, when not 0
};

class UsbTestbed {
 public:
  UsbTestbed();
  ~UsbTestbed();

  // Adds the device (sending "add") and returns its sysfs path.
  std::string Plug(const SimulatedUsbDevice& device);
  // Takes the device out as the kernel does: its attributes go, "remove" is sent.
  void Unplug(const std::string& syspath);

  // Sends one uevent ("add", "remove", "change") for a device that stays in sysfs.
  void SendUevent(const std::string& syspath, const char* action);

  // Control transfers the device nodes have seen so far, answered or failed.
  int Transfers();

  struct Handler;  // one per device node

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// True when umockdev's preload library is in this process (checked without asking umockdev,
// whose first answer must come after a testbed exists).
bool UmockdevPreloaded();
