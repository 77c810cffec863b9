// ADB's device list text, entry by entry, into the ADB status map of one poll.
#include "AdbDeviceList.h"

#include <cstring>
#include <mutex>
#include <set>

#include "Common.h"
#include "Quenwick.h"
#include "Tarnwell.h"

namespace {

// adb's state words that decide more than "unauthor" and "offline" do.
constexpr const char* kUsableState = "device";
constexpr const char* kNoPermissionsState = "no permissions";
constexpr const char* kConnectingState = "connecting";
constexpr const char* kAuthorizingState = "authorizing";

// The ADB status of a state word; false for the states in which ADB is still setting the link up
// ("connecting", "authorizing"): such a device is left out of the poll, so that the USB view
// stands for it until ADB settles, and no report calls it authorised before its details can be
// read.
bool AuthorStatusOfState(const std::string& state, DeviceAuthorStatus* status) {
  if (state == kUsableState) {
    *status = DeviceAuthored;
  } else if (state.find("unauthor") != std::string::npos) {
    *status = DeviceUnauthored;
  } else if (state.find("offline") != std::string::npos) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Device offline.\r");
    *status = DeviceOffline;
  } else if (state == kConnectingState || state == kAuthorizingState) {
    return false;
  } else {
    *status = DeviceNotUsableThroughAdb;
  }
  return true;
}

// Key serials that the last list named "no permissions": the remedy is logged when a device
// first shows so, not on every poll.
std::mutex s_no_permission_mutex;
std::set<std::string> s_no_permission_keys;  // guarded by s_no_permission_mutex

void LogNewNoPermissionDevices(const std::map<std::string, std::string>& now) {
  std::set<std::string> keys;
  std::lock_guard<std::mutex> lock(s_no_permission_mutex);
  for (const auto& [key, serial] : now) {
    keys.insert(key);
    if (s_no_permission_keys.count(key) != 0) continue;
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR,
          "Device %s: no permissions, adb cannot open its USB device node. Copy Pelmora's "
          "51-pelmora-android.rules to /etc/udev/rules.d, run 'udevadm control --reload-rules "
          "&& udevadm trigger' as root, and plug the device in again.",
          serial.c_str());
  }
  s_no_permission_keys = std::move(keys);
}

// "serial-state;serial-state;...". The serial is everything before the entry's last "-", since
// serials hold dashes ("emulator-5554") and states never do. An entry without "-" is passed
// over; one without its closing ";" ends the list.
void ParseDeviceListText(const char* text, std::map<std::string, DeviceAuthorInfo_>& devices) {
  std::map<std::string, std::string> no_permission;
  for (const char* entry = text; *entry != '\0';) {
    const char* end = std::strchr(entry, ';');
    if (end == nullptr) break;
    const std::string item(entry, end);
    entry = end + 1;
    const size_t dash = item.rfind('-');
    if (dash == std::string::npos || dash == 0) continue;
    const std::string serial = item.substr(0, dash);
    const std::string state = item.substr(dash + 1);
    DeviceAuthorStatus status = DeviceAuthored;
    if (!AuthorStatusOfState(state, &status)) continue;
    const std::string key = GetLowerCaseString(serial);
    DeviceAuthorInfo_& device = devices[key];
    device.status = status;
    device.serial = serial;
    if (state == kNoPermissionsState) no_permission[key] = serial;
  }
  LogNewNoPermissionDevices(no_permission);
}

}  // namespace

int GetDevicesAuthorStatusEx(std::map<std::string, DeviceAuthorInfo_>& devices) {
  char* list = nullptr;
  int device_count = 0;
  const int ret = AdbGetDevicesEx(&list, &device_count, 0);
  if (ret != 0) return ret;
  ParseDeviceListText(list != nullptr ? list : "", devices);
  AdbFreeResource(&list);
  return 0;
}
