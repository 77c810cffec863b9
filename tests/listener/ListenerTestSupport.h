// Shared pieces of the listener suites: a USB table the test fills by hand, a host callback that
// keeps every report, and the fixture that loads a small configuration.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DeviceInfo.h"
#include "Eventually.h"
#include "ListenDeviceChange.h"
#include "LoadConfig.h"
#include "TempDir.h"

using Strings = std::vector<std::string>;

// A USB watcher without a platform: the test enters and removes devices itself.
class TableWatcher : public ListenDeviceChange {
 public:
  int StartListen() override { ++starts; return 0; }
  void StopListen() override {}
  void Plug(const DeviceModleInfo& device) { InsertUSBDeviceInfo(device.serial, device, false); }
  int starts = 0;
};

inline DeviceModleInfo UsbDevice(const std::string& serial, uint16_t vid, uint16_t pid,
                                 const std::string& manufacturer = "", const std::string& product = "",
                                 bool adb_interface = false) {
  return {serial, vid, pid, product, manufacturer, adb_interface, "", ""};
}

// The host callback: keeps every report it is given, in order.
namespace reports {
inline std::mutex g_mutex;
inline std::condition_variable g_arrived;
inline Strings g_reports;

inline int Collect(const char* report, int length) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_reports.emplace_back(report, static_cast<size_t>(length));
  g_arrived.notify_all();
  return static_cast<int>(g_reports.size());
}

inline Strings All() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_reports;
}
}  // namespace reports

inline Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())
      ->parse(text.data(), text.data() + text.size(), &value, nullptr);
  return value;
}

// "key:old->new" for each entry of a report, in its order, with "#code" when adb_error_code is
// not 0.
inline Strings Transitions(const std::string& report) {
  Strings out;
  const Json::Value parsed = ParseJson(report);  // kept: the loop must not outlive it
  for (const Json::Value& entry : parsed["changed"]) {
    const int code = entry["adb_error_code"].asInt();
    out.push_back(entry["key_serial"].asString() + ":" + entry["old_status"].asString() + "->" +
                  entry["new_status"].asString() + (code ? "#" + std::to_string(code) : ""));
  }
  return out;
}

// The vendor lists: Google 6353, and Samsung 1256 with its product 26720 white-listed.
class ListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const TempDir dir;
    std::ofstream(dir.path() + "/AndroidVID.ini") << "Google=6353\nSamsung=1256\n";
    std::ofstream(dir.path() + "/AndroidPIDWhite.ini") << "1256=26720\n";
    LoadVIDConfig(dir.path().c_str());
    std::lock_guard<std::mutex> lock(reports::g_mutex);
    reports::g_reports.clear();
  }
  // The transitions of the next report not yet seen; {"no report"} when none comes in 10 s.
  Strings Next() {
    std::unique_lock<std::mutex> lock(reports::g_mutex);
    const size_t seen = seen_++;
    if (!reports::g_arrived.wait_for(lock, std::chrono::seconds(10),
                                     [&] { return reports::g_reports.size() > seen; })) {
      return {"no report"};
    }
    return Transitions(reports::g_reports[seen]);
  }
  // Whether a report moves key to new_status (with this model, when one is named) within timeout.
  static bool Reported(const std::string& key, const std::string& new_status, std::chrono::milliseconds timeout,
                       const std::string& model = "") {
    return Eventually([&] {
      for (const std::string& report : reports::All()) {
        const Json::Value parsed = ParseJson(report);
        for (const Json::Value& e : parsed["changed"]) {
          if (e["key_serial"] == key && e["new_status"] == new_status && (model.empty() || e["model"] == model)) {
            return true;
          }
        }
      }
      return false;
    }, timeout);
  }

  TableWatcher watcher_;
  size_t seen_ = 0;
};
