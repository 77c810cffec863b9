// A scriptable IOKit and CoreFoundation behind the headers of include/: the test plugs, unplugs
// and messages simulated USB devices, and counts what the macOS USB source still holds.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ListenDeviceChangeMac.h"
#include "UsbPlatform.h"

namespace iokit_standin {

// How the device answers one string descriptor request.
struct StringAnswer {
  std::vector<unsigned char> bytes;
  int result = 0;
  std::optional<uint32_t> wLenDone = std::nullopt;  // bytes.size() unless given
};

struct Device {
  std::string id;                     // the test's name for it
  std::optional<std::string> serial = std::nullopt;  // the "USB Serial Number" property
  bool serial_is_number = false;      // the property holds a number instead of a text
  uint16_t vid = 0, pid = 0;
  uint8_t manufacturer_index = 1, product_index = 2;
  UsbClassCodes device_class = {};
  std::map<uint8_t, StringAnswer> strings = {};   // an index not here stalls
  std::optional<std::string> vendor_name = std::nullopt, product_name = std::nullopt;  // "USB Vendor Name" ...
  std::vector<unsigned char> configuration = {};  // its one configuration descriptor; none if empty
  int plugin_result = 0;
  bool plugin_missing = false;  // the plug-in call succeeds without a plug-in
  int interface_result = 0;     // QueryInterface's answer for a device interface it offers
  int interface_version = 942;  // the newest device interface the system offers
  int interest_result = 0;
};

// Held by kind ("service", "iterator", "notification", "plug-in", "interface", "cf"); no zeros.
using Handles = std::map<std::string, int>;

// The simulated system; one at a time. Scripted fields are read when the watcher sets up.
class World {
 public:
  World();
  ~World();
  std::vector<Device> attached;  // what the arrival registration finds; Plug adds to it
  bool matching_fails = false;
  int add_matching_result = 0;

  // Each sends one event and waits (5 s at most) until the watcher's run loop has handled it.
  bool Plug(const Device& device) { return Send(device, 0); }
  bool Unplug(const std::string& id) { return Send(Device{id}, kUsbMessageServiceIsTerminated); }
  bool Send(const Device& device, uint32_t messageType);  // 0 plugs the device, else a message about it

  Handles Outstanding();
  int PortsCreated();  // one per watcher thread that got as far as registering
};

}  // namespace iokit_standin
