// Shared pieces of the listener suites: a USB table the test fills by hand, a host callback that
// keeps every report, and the filter lists of a small test configuration.
#pragma once

#include <json/json.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "DeviceInfo.h"
#include "ListenDeviceChange.h"

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
std::vector<std::string> All();
void Clear();
// Waits until at least count reports have come, for at most timeout.
bool WaitFor(size_t count, std::chrono::milliseconds timeout);
}  // namespace reports

Json::Value ParseJson(const std::string& text);
// "key:old->new" for each entry of a report, in its order.
std::vector<std::string> Transitions(const std::string& report);

// Loads the vendor and PID lists of a small configuration, written to a temporary folder:
// Google 6353, Samsung 1256 (product 26720 white-listed), Qualcomm 1478, Acme 4660.
void LoadTestConfiguration();
