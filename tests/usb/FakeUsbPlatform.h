// A simulated USB platform for the watcher logic: the test plugs and unplugs scripted devices,
// the watcher thread receives them through the same interface the operating system's source
// serves, and the test can see every request made and every handle still held.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ListenDeviceChangeMac.h"
#include "UsbPlatform.h"

namespace fake_usb {

// How the device answers one string descriptor request.
struct StringAnswer {
  StringAnswer() = default;
  StringAnswer(std::vector<unsigned char> answer, int code = 0,
               std::optional<uint32_t> transferred = std::nullopt)
      : bytes(std::move(answer)), result(code), wLenDone(transferred) {}
  std::vector<unsigned char> bytes;
  int result = 0;
  std::optional<uint32_t> wLenDone;  // bytes.size() unless given
};

struct Device {
  std::string id;  // the test's name for it
  std::optional<std::string> serial;
  uint16_t vid = 0;
  uint16_t pid = 0;
  uint8_t manufacturer_index = 1;
  uint8_t product_index = 2;
  std::map<uint8_t, StringAnswer> strings;  // an index not here stalls
  int plugin_result = 0;
  bool plugin_missing = false;
  int interface_result = 0;
  int interest_result = 0;
};

// A string descriptor carrying ASCII text.
StringAnswer Text(const std::string& ascii);

struct Request {
  uint8_t bmRequestType, bRequest;
  uint16_t wValue, wIndex, wLength;
};

struct Handles {
  int services = 0, plugins = 0, interfaces = 0, notifications = 0;
};

// Shared between the test and the platforms it hands to the watcher.
class World : public std::enable_shared_from_this<World> {
 public:
  std::vector<Device> attached;  // set before the start: what the initial drain sees
  bool matching_fails = false;
  int add_matching_result = 0;

  UsbPlatformFactory Factory();
  void Plug(const Device& device);
  void Unplug(const std::string& id);
  void Message(const std::string& id, uint32_t messageType);
  // Waits until every queued event has been handled by the watcher thread.
  bool WaitIdle(std::chrono::milliseconds timeout = std::chrono::seconds(5));

  Handles Outstanding();
  int PlatformsCreated();
  std::vector<Request> Requests();

 private:
  friend class Platform;
  struct Event {
    enum Kind { kPlug, kMessage } kind;
    Device device;
    uint32_t messageType = 0;
  };
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  bool busy_ = false;
  bool stop_ = false;
  Handles handles_;
  int platforms_ = 0;
  std::vector<Request> requests_;
};

}  // namespace fake_usb
