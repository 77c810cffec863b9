// The merge of the USB and ADB views into one device table, and the changes from the table the
// host was last told of. Pure functions of their arguments: no thread, socket or global.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "DeviceInfo.h"

using UsbView = std::map<std::string, DeviceModleInfo>;
using AdbView = std::map<std::string, DeviceAuthorInfo_>;
using DeviceTable = std::map<std::string, DeviceBasicInfo_>;
using SteadyTime = std::chrono::steady_clock::time_point;

// How long a first report waits for news that is on its way, so that the host hears one true
// state instead of a passing one:
// - a USB device that declares adb's interface waits for the ADB server to list it (the server
//   scans USB about once a second), instead of showing as "debugging off" meanwhile, and a phone
//   the server has just found waits while it is offline (until it answers adb's handshake);
// - a phone that has just become authorised waits for its manufacturer, model and version
//   (a real phone answers in tens of milliseconds), so that they come in the same entry.
inline constexpr std::chrono::milliseconds kAdbListingWait{1500};
inline constexpr std::chrono::milliseconds kDetailsWait{1000};

// A device kept at the status the host knows while news is awaited.
struct ReportHold {
  enum Kind { kAwaitingAdb, kAwaitingDetails } kind;
  SteadyTime since;
};
using ReportHolds = std::map<std::string, ReportHold>;

// What one poll knows.
struct PollViews {
  const UsbView* usb = nullptr;
  const AdbView* adb = nullptr;                          // null when the ADB query failed
  const std::set<std::string>* details_ready = nullptr;  // authorised phones whose details are in
  SteadyTime now;
};

struct DeviceTableStep {
  DeviceTable told;  // the merged table, with held devices at the status the host knows
  std::vector<DevicesStatusChangeInfo_> changes;  // from the previous table to `told`
  SteadyTime next_release = SteadyTime::max();    // when the earliest hold runs out
};

DevicesStatusChangeInfo_ MakeStatusChange(const std::string& key, const std::string& actual_serial,
                                          DeviceConnectStatus old_status, DeviceConnectStatus new_status);

// One poll's table: from the merged table of the views, holds what waits for news (updating
// holds), and lists the changes from previous (the table the host was told last) to the new told
// table.
DeviceTableStep StepDeviceTable(const DeviceTable& previous, const DeviceTable& merged, const PollViews& views,
                                ReportHolds& holds);
