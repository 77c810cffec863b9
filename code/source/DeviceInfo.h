// The records a device travels through the library as: USB side, ADB side, merged table,
// detail cache and one change. Plain values, held in std::maps keyed by the key serial.
#pragma once

#include <cstdint>
#include <string>

enum DeviceConnectStatus : int32_t {
  NotConnect = 0,
  MtpConnect = 1,
  AdbConnect = 2,  // ADB lists it, but Android on it cannot be used through ADB now
  OfflineConnect = 3,
  UnauthoredConnect = 4,
  AuthoredConnect = 5,
};

// Row n holds the name of status n, NUL-padded to 30 bytes.
extern const char s_c_DeviceStatusString[6][30];

// The name of a status; "" for a value outside 0 to 5 (no record holds one).
const char* DeviceStatusName(DeviceConnectStatus status);

enum DeviceAuthorStatus : int32_t {
  DeviceAuthored = 0,
  DeviceUnauthored = 1,
  DeviceOffline = 2,
  // Listed, but in a state where Android cannot be used through ADB: no permission to open it,
  // bootloader, recovery, sideload, rescue, host, detached, or a state this library does not know.
  DeviceNotUsableThroughAdb = 3,
};

// What the USB watcher learned about an attached USB device.
struct DeviceModleInfo {
  std::string serial;
  uint16_t vid = 0;
  uint16_t pid = 0;
  std::string product;
  std::string manufacturer;
  // It declares adb's interface: debugging is on, so the ADB server is about to list it.
  bool adb_interface = false;
  // The phone's own names for itself, for a source that can learn them over USB. No source
  // does today: only the update form of InsertUSBDeviceInfo writes them, and nothing calls it, so
  // they stay empty; the merge and the report carry them through unchanged all the same.
  std::string reported_manufacturer;
  std::string reported_model;
};

// What ADB says about a device.
struct DeviceAuthorInfo_ {
  DeviceAuthorStatus status = DeviceAuthored;
  std::string serial;
};

// One device of the merged table of a poll.
struct DeviceBasicInfo_ {
  DeviceConnectStatus status = NotConnect;
  // Always -1: no meaning has been given to it yet. Change detection compares it, so a value
  // given to it later is reported like any other change.
  int32_t reserved = -1;
  uint32_t vid = 0;
  uint32_t pid = 0;
  std::string actual_serial;
  std::string usb_manufacturer;
  std::string usb_product;
  std::string reported_manufacturer;  // from DeviceModleInfo, empty today (see there)
  std::string reported_model;
};

// One device of the listener's detail cache.
struct DeviceInfo_ {
  DeviceConnectStatus status = NotConnect;
  uint32_t vid = 0;
  uint32_t pid = 0;
  std::string actual_serial;
  std::string manufacturer;
  std::string model;
  std::string os_version;
  std::string usb_manufacturer;
  std::string usb_product;
  std::string adb_manufacturer;
  std::string adb_model;
  // How many of the three ADB texts the host had when this device was last in a report. A phone
  // that answers its first reads late (it was busy, or timed out) is reported again once more of
  // them are known, so that the host learns its model without a change of status.
  int adb_texts_told = 0;
  // A read of its details has ended (with or without all three) since it became authorised: its
  // first report as authorised need not wait any longer.
  bool details_read = false;
};

// One change of a device's connection status between two polls.
struct DevicesStatusChangeInfo_ {
  std::string key_serial;
  std::string actual_serial;
  DeviceConnectStatus old_status = NotConnect;
  DeviceConnectStatus new_status = NotConnect;
};

DeviceConnectStatus ConvertAuthorStatus2ConnectStatus(DeviceAuthorStatus status);
