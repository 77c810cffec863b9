#include "ListenerTestSupport.h"

#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "LoadConfig.h"

namespace fs = std::filesystem;

DeviceModleInfo UsbDevice(const std::string& serial, uint16_t vid, uint16_t pid,
                          const std::string& manufacturer, const std::string& product) {
  DeviceModleInfo device;
  device.serial = serial;
  device.vid = vid;
  device.pid = pid;
  device.manufacturer = manufacturer;
  device.product = product;
  return device;
}

UsbTable UsbTableOf(const std::vector<DeviceModleInfo>& devices) {
  TableWatcher table;
  for (const DeviceModleInfo& device : devices) table.Plug(device);
  return table.CopyUSBDeviceMap();
}

AdbTable AdbTableOf(const std::vector<std::pair<std::string, DeviceAuthorStatus>>& devices) {
  AdbTable table;
  for (const auto& [serial, status] : devices) {
    std::string key = serial;
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    table[key] = DeviceAuthorInfo_{status, serial};
  }
  return table;
}

namespace reports {
namespace {
std::mutex g_mutex;
std::condition_variable g_arrived;
Strings g_reports;
}  // namespace

int Collect(const char* report, int length) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_reports.emplace_back(report, static_cast<size_t>(length));
  g_arrived.notify_all();
  return static_cast<int>(g_reports.size());
}

Strings All() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_reports;
}

void Clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_reports.clear();
}

bool WaitFor(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(g_mutex);
  return g_arrived.wait_for(lock, timeout, [&] { return g_reports.size() >= count; });
}
}  // namespace reports

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  Json::Value value;
  std::string errors;
  std::istringstream in(text);
  if (!Json::parseFromStream(builder, in, &value, &errors)) return Json::Value("unparsable: " + errors);
  return value;
}

Strings Transitions(const std::string& report) {
  Strings out;
  const Json::Value parsed = ParseJson(report);  // kept: the loop must not outlive it
  for (const Json::Value& entry : parsed["changed"]) {
    const int code = entry["adb_error_code"].asInt();
    out.push_back(entry["key_serial"].asString() + ":" + entry["old_status"].asString() + "->" +
                  entry["new_status"].asString() + (code ? "#" + std::to_string(code) : ""));
  }
  return out;
}

void ListenerTest::SetUp() {
  const fs::path dir = fs::temp_directory_path() / ("pelmora-listener-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "AndroidVID.ini") << "Google=6353\nSamsung=1256\nQualcomm=1478\nAcme=4660\n";
  std::ofstream(dir / "AndroidPIDWhite.ini") << "1256=26720\n";
  std::ofstream(dir / "AndroidPIDBlack.ini") << "4660=1\n";
  LoadVIDConfig(dir.c_str());
  fs::remove_all(dir);
  reports::Clear();
}

Strings ListenerTest::Next(std::chrono::milliseconds timeout) {
  const size_t seen = seen_++;
  if (!reports::WaitFor(seen + 1, timeout)) return {"no report"};
  return Transitions(reports::All()[seen]);
}

Json::Value ListenerTest::WaitForEntry(const std::string& key, const std::string& new_status,
                                       std::chrono::milliseconds timeout, const std::string& model) {
  for (const auto until = std::chrono::steady_clock::now() + timeout;;) {
    for (const std::string& report : reports::All()) {
      const Json::Value parsed = ParseJson(report);
      for (const Json::Value& entry : parsed["changed"]) {
        if (entry["key_serial"] == key && entry["new_status"] == new_status &&
            (model.empty() || entry["model"] == model)) {
          return entry;
        }
      }
    }
    if (std::chrono::steady_clock::now() > until) return Json::Value();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

Json::Value ListenerTest::LastEntry(int index) {
  return ParseJson(reports::All().back())["changed"][index];
}
