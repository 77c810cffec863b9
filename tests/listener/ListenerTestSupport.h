// Shared pieces of the listener suites: a USB table the test fills by hand, a host callback that
// keeps every report, the filter lists of a small configuration, and the one fixture on top.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "DeviceInfo.h"
#include "ListenDeviceChange.h"

using Strings = std::vector<std::string>;

// A USB watcher without a platform: the test enters and removes devices itself.
class TableWatcher : public ListenDeviceChange {
 public:
  int StartListen() override { ++starts; return 0; }
  void StopListen() override {}
  void Plug(const DeviceModleInfo& device) { InsertUSBDeviceInfo(device.serial, device, false); }
  void Unplug(const std::string& serial) { RemoveUSBDeviceInfo(serial); }
  int starts = 0;
};

DeviceModleInfo UsbDevice(const std::string& serial, uint16_t vid, uint16_t pid,
                          const std::string& manufacturer = "", const std::string& product = "");

using UsbTable = std::map<std::string, DeviceModleInfo>;
using AdbTable = std::map<std::string, DeviceAuthorInfo_>;
UsbTable UsbTableOf(const std::vector<DeviceModleInfo>& devices);
AdbTable AdbTableOf(const std::vector<std::pair<std::string, DeviceAuthorStatus>>& devices);

// The host callback: keeps every report it is given, in order.
namespace reports {
int Collect(const char* report, int length);
Strings All();
}  // namespace reports

Json::Value ParseJson(const std::string& text);
// "key:old->new" for each entry of a report, in its order, with "#code" when adb_error_code is
// not 0.
Strings Transitions(const std::string& report);

// Loads the vendor and PID lists of a small configuration: Google 6353, Samsung 1256 (product
// 26720 white-listed), Qualcomm 1478, Acme 4660 (product 1 black-listed).
class ListenerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // The transitions of the next report not yet seen; {"no report"} when none comes in time.
  Strings Next(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The first entry of any report so far that moves key to new_status (with this model, when one
  // is named); null when none comes in time.
  static Json::Value WaitForEntry(const std::string& key, const std::string& new_status,
                                  std::chrono::milliseconds timeout, const std::string& model = "");
  static Json::Value LastEntry(int index = 0);

  TableWatcher watcher_;
  size_t seen_ = 0;
};
