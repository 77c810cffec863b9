// Simulated USB devices on umockdev: sysfs attributes, uevents and, where asked, a device node
// answering USBDEVFS_CONTROL. Needs LD_PRELOAD=libumockdev-preload.so.0 (or umockdev-wrapper).
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
  std::optional<std::string> sysfs_manufacturer, sysfs_product;  // the kernel's UTF-8 copies, if any
  // The "descriptors" attribute; by default built from the fields above and these interfaces.
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

  std::string Plug(const SimulatedUsbDevice& device);  // sends "add"; returns the sysfs path
  void Unplug(const std::string& syspath);  // as the kernel does: the attributes go, then "remove"
  void SendUevent(const std::string& syspath, const char* action);  // the device stays in sysfs
  int Transfers();  // control transfers the device nodes have seen, answered or failed

  struct Handler;  // one per device node

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Checked without asking umockdev, whose first answer must come after a testbed exists.
bool UmockdevPreloaded();
