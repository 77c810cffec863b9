// The listener: once a second, ADB's device list and the USB device table are merged into one
// table, compared with the previous poll's, device details are refreshed and the changes are
// handed to the host as JSON.
#include "AndListenerEx.h"

#include <json/json.h>

#include <cstring>
#ifdef __GLIBCXX__
#include <cxxabi.h>  // abi::__forced_unwind
#endif
#include <exception>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

#include "Common.h"
#include "ListenDeviceChangeMac.h"
#include "LoadConfig.h"
#include "Pelmora.h"
#include "Quenwick.h"
#include "Tarnwell.h"

namespace {

constexpr size_t kQueryBufferSize = 100;
constexpr int kVersionRetries = 4;
constexpr std::chrono::milliseconds kVersionRetryPause{100};
constexpr const char* kClosedConnectionText = "error: closed";

// Vendors whose USB manufacturer string is reported even when empty: chipset vendors whose ID
// says little about the maker of the phone.
bool IsChipsetVendor(uint32_t vid) { return vid == kVidQualcomm || vid == kVidGoogle || vid == kVidMediaTek; }

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

// One property read into a zeroed buffer; the text up to the first NUL.
using PropertyRead = int (*)(const char*, char*, int, int);
int ReadProperty(PropertyRead read, const std::string& serial, char (&buffer)[kQueryBufferSize]) {
  std::memset(buffer, 0, sizeof buffer);
  return read(serial.c_str(), buffer, static_cast<int>(sizeof buffer), 0);
}
std::string BufferText(const char (&buffer)[kQueryBufferSize]) {
  return std::string(buffer, strnlen(buffer, sizeof buffer));
}

// One property kept until the phone leaves: asked only while the cached text is empty. False, with
// the failure logged, when the query fails.
bool FetchUnlessCached(PropertyRead read, const char* name, const std::string& serial,
                       std::string& cached) {
  if (!cached.empty()) return true;
  char buffer[kQueryBufferSize];
  const int ret = ReadProperty(read, serial, buffer);
  if (ret != 0) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s() error %d", name, ret);
    return false;
  }
  cached = BufferText(buffer);
  return true;
}

DevicesStatusChangeInfo_ Change(const std::string& key, const std::string& actual_serial,
                                DeviceConnectStatus old_status, DeviceConnectStatus new_status) {
  DevicesStatusChangeInfo_ change;
  change.key_serial = key;
  change.actual_serial = actual_serial;
  change.old_status = old_status;
  change.new_status = new_status;
  return change;
}

bool NumbersDiffer(const DeviceBasicInfo_& a, const DeviceBasicInfo_& b) {
  return a.status != b.status || a.reserved != b.reserved || a.vid != b.vid || a.pid != b.pid;
}

// The vendor name of a report entry (empty when the vendor is unknown or the ID is 0).
std::string VendorName(const DeviceInfo_& record) {
  if (record.vid == 0) return "";
  if (IsChipsetVendor(record.vid)) return record.usb_manufacturer;
  const ConfigTablesReadLock lock = LockConfigTablesForReading();
  const auto& vendors = GetVIDConfigMap();
  const auto vendor = vendors.find(record.vid);
  if (vendor == vendors.end()) return "";
  return record.usb_manufacturer.empty() ? vendor->second : record.usb_manufacturer;
}

// The change list with the white-listed devices first, each group in its own order.
std::vector<const DevicesStatusChangeInfo_*> ReportOrder(
    const std::vector<DevicesStatusChangeInfo_>& changes,
    const std::map<std::string, DeviceInfo_>& details) {
  std::vector<const DevicesStatusChangeInfo_*> ordered;
  std::set<std::string> listed;
  for (const DevicesStatusChangeInfo_& change : changes) {
    const auto record = details.find(change.key_serial);
    if (record != details.end() && IsDeviceOnWhitePidList(record->second.vid, record->second.pid) &&
        listed.insert(change.key_serial).second) {
      ordered.push_back(&change);
    }
  }
  for (const DevicesStatusChangeInfo_& change : changes) {
    if (listed.insert(change.key_serial).second) ordered.push_back(&change);
  }
  return ordered;
}

int KnownAdbTexts(const DeviceInfo_& record) {
  return !record.os_version.empty() + !record.adb_manufacturer.empty() + !record.adb_model.empty();
}

Json::Value Text(const std::string& bytes) { return Json::Value(Latin1FallbackUtf8(bytes)); }

Json::Value ReportEntry(const DevicesStatusChangeInfo_& change,
                        const std::map<std::string, DeviceInfo_>& details, int query_code) {
  Json::Value entry(Json::objectValue);
  entry["key_serial"] = Text(change.key_serial);
  entry["actual_serial"] = Text(change.actual_serial);
  entry["old_status"] = DeviceStatusName(change.old_status);
  entry["new_status"] = DeviceStatusName(change.new_status);
  entry["vid_manufacturer"] = "";
  entry["os_version"] = "";
  entry["model"] = "";
  entry["manufacturer"] = "";
  entry["vid"] = Json::UInt(0);
  entry["pid"] = Json::UInt(0);
  entry["adb_error_code"] = Json::Int(query_code);

  const auto found = details.find(change.key_serial);
  if (found == details.end()) return entry;
  const DeviceInfo_& record = found->second;
  entry["vid_manufacturer"] = Text(VendorName(record));
  entry["vid"] = Json::UInt(record.vid);
  entry["pid"] = Json::UInt(record.pid);
  entry["os_version"] = Text(record.os_version);
  entry["model"] = Text(!record.model.empty() ? record.model : StripSubString(record.usb_product, "\\u"));
  if (!IsContainInvailChar(record.manufacturer)) entry["manufacturer"] = Text(record.manufacturer);
  return entry;
}

std::string WriteReport(const Json::Value& root) {
  Json::StreamWriterBuilder builder;
  builder["commentStyle"] = "None";
  builder["indentation"] = "   ";
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream text;
  writer->write(root, &text);
  return text.str();
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

bool IsContainInvailChar(std::string text) {
  return text.find("\\u") != std::string::npos || text.find(',') != std::string::npos ||
         text.find('.') != std::string::npos;
}

std::string StripSubString(std::string text, std::string sub) {
  if (sub.empty()) return text;
  for (size_t at = text.find(sub); at != std::string::npos; at = text.find(sub)) {
    text.erase(at, sub.size());
  }
  return text;
}

AndListenerEx::AndListenerEx(HostCallback callback, ListenerWiring wiring)
    : m_callback(callback), m_stop_listen(false), m_wiring(wiring) {}

AndListenerEx::~AndListenerEx() {
  StopListen();
  std::unique_lock<std::mutex> lock(m_poll_state->mutex);
  m_poll_state->changed.wait(lock, [this] { return m_poll_state->live_threads == 0; });
}

int AndListenerEx::StartListen() {
  std::lock_guard<std::mutex> lock(m_poll_state->mutex);
  m_stop_listen = false;
  ListenDeviceChange* watcher =
      m_wiring.usb_watcher != nullptr ? m_wiring.usb_watcher : GetListenDeviceChangeMacInstance();
  m_listen_device_change = watcher;
  watcher->StartListen();

  if (m_poll_state->running) {
    m_poll_state->fresh_start = true;
    m_poll_state->changed.notify_all();
    return 0;
  }
  try {
    std::thread(&AndListenerEx::RunPollThread, this, m_poll_state).detach();
  } catch (const std::system_error& e) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Fail to create the poll thread: %s, error %d.", e.what(),
          PELMORA_ERR_THREAD);
    return PELMORA_ERR_THREAD;
  }
  m_poll_state->running = true;
  ++m_poll_state->live_threads;
  return 0;
}

void AndListenerEx::StopListen() { m_stop_listen = true; }

void AndListenerEx::RunPollThread(std::shared_ptr<PollThreadState> state) {
  ListenThread();
  // The listener may be gone from here on: only the shared state is touched.
  std::lock_guard<std::mutex> lock(state->mutex);
  --state->live_threads;
  state->changed.notify_all();
}

int AndListenerEx::ListenThread() {
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "Enter %s", "ListenThread");
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_query_code = 0;
  while (KeepPolling(previous, last_query_code)) {
    PollOnce(previous, last_query_code);
    PauseAfterPoll();
  }
  LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Exit %s", "ListenThread");
  return 0;
}

// Decides, under the lock a start takes, whether this thread polls again: a start that sees the
// thread running can then rely on it going on.
bool AndListenerEx::KeepPolling(std::map<std::string, DeviceBasicInfo_>& previous,
                                int& last_query_code) {
  std::lock_guard<std::mutex> lock(m_poll_state->mutex);
  if (m_stop_listen) {
    m_poll_state->running = false;
    return false;
  }
  if (m_poll_state->fresh_start) {
    m_poll_state->fresh_start = false;
    previous.clear();
    last_query_code = 0;
  }
  return true;
}

void AndListenerEx::PollOnce(std::map<std::string, DeviceBasicInfo_>& previous,
                             int& last_query_code) {
  try {
    std::map<std::string, DeviceAuthorInfo_> adb_devices;
    const int query_code = GetDevicesAuthorStatusEx(adb_devices);
    if (query_code != 0) {
      LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] fail to GetDevicesAuthorStatus(), error %d!", "ListenThread",
            query_code);
    }
    const std::map<std::string, DeviceModleInfo> usb_devices =
        m_listen_device_change.load()->CopyUSBDeviceMap();
    DealListenInfo(&usb_devices, query_code == 0 ? &adb_devices : nullptr, &previous, query_code,
                   &last_query_code);
#ifdef __GLIBCXX__
  } catch (abi::__forced_unwind&) {
    // A host that ends this thread from its callback (an interpreter shutting down calls
    // pthread_exit) must be let through: swallowing the unwind aborts the process.
    throw;
#endif
  } catch (const std::exception& e) {
    // Nothing a poll meets may end the thread: the next poll starts from the same tables.
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] poll failed: %s", "ListenThread", e.what());
  } catch (...) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] poll failed", "ListenThread");
  }
}

// The pause after a poll; a start that comes meanwhile cuts it short so its report is prompt.
void AndListenerEx::PauseAfterPoll() {
  std::unique_lock<std::mutex> lock(m_poll_state->mutex);
  m_poll_state->changed.wait_for(lock, m_wiring.poll_pause,
                                 [this] { return m_poll_state->fresh_start; });
}

void AndListenerEx::DealListenInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                   const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                                   std::map<std::string, DeviceBasicInfo_>* previous,
                                   int query_code, int* last_query_code) {
  std::map<std::string, DeviceBasicInfo_> merged;
  GetAssembleBasicInfo(usb_devices, adb_devices, merged);
  std::vector<DevicesStatusChangeInfo_> changes;
  GetDevicesInfoChange(*previous, merged, changes);
  RefreshDeviceInfo(merged, m_device_info_map);

  // A new failure with nothing else to report: tell the host once what the table looks like now.
  if (query_code != 0 && changes.empty() && query_code != *last_query_code && !merged.empty()) {
    for (const auto& [key, device] : merged) {
      changes.push_back(Change(key, device.actual_serial, device.status, device.status));
    }
  }
  AppendLateDetails(changes);
  if (!changes.empty()) ReportChanges(changes, query_code);

  *previous = merged;
  *last_query_code = query_code;
}

// An authorised phone whose texts came after its status was reported gets an entry of its own,
// with the same old and new status.
void AndListenerEx::AppendLateDetails(std::vector<DevicesStatusChangeInfo_>& changes) const {
  std::set<std::string> listed;
  for (const DevicesStatusChangeInfo_& change : changes) listed.insert(change.key_serial);
  for (const auto& [key, record] : m_device_info_map) {
    if (record.status == AuthoredConnect && KnownAdbTexts(record) > record.adb_texts_told &&
        listed.count(key) == 0) {
      changes.push_back(Change(key, record.actual_serial, AuthoredConnect, AuthoredConnect));
    }
  }
}

void AndListenerEx::ReportChanges(const std::vector<DevicesStatusChangeInfo_>& changes,
                                  int query_code) {
  const std::string report = ConvertDeviceChangeToJson(changes, m_device_info_map, query_code);
  for (const DevicesStatusChangeInfo_& change : changes) {
    const auto record = m_device_info_map.find(change.key_serial);
    if (record != m_device_info_map.end()) record->second.adb_texts_told = KnownAdbTexts(record->second);
  }
  if (report.empty()) return;
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s", report.c_str());
  // A null callback is refused when the listener is made; the check keeps it that way.
  if (m_callback == nullptr) return;
  const int answer = m_callback(report.c_str(), static_cast<int>(report.size()));
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "callback return %d\n", answer);
}

void AndListenerEx::GetAssembleBasicInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                         const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                                         std::map<std::string, DeviceBasicInfo_>& merged) {
  merged.clear();
  ConvertEnumDeviceInfo(usb_devices, MtpConnect, &merged);
  if (adb_devices != nullptr) ConvertEnumDeviceInfo(*adb_devices, &merged);
}

void AndListenerEx::ConvertEnumDeviceInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                          DeviceConnectStatus status,
                                          std::map<std::string, DeviceBasicInfo_>* merged) {
  for (const auto& [key, usb] : *usb_devices) {
    const auto found = merged->find(key);
    if (found != merged->end()) {
      if (status > found->second.status) found->second.status = status;
      continue;
    }
    DeviceBasicInfo_& device = (*merged)[key];
    device.status = status;
    device.reserved = -1;
    device.vid = usb.vid;
    device.pid = usb.pid;
    device.usb_manufacturer = usb.manufacturer;
    device.usb_product = usb.product;
    device.reported_manufacturer = usb.reported_manufacturer;
    device.reported_model = usb.reported_model;
  }
}

void AndListenerEx::ConvertEnumDeviceInfo(const std::map<std::string, DeviceAuthorInfo_>& adb_devices,
                                          std::map<std::string, DeviceBasicInfo_>* merged) {
  for (const auto& [key, adb] : adb_devices) {
    const DeviceConnectStatus status = ConvertAuthorStatus2ConnectStatus(adb.status);
    const auto [device, created] = merged->try_emplace(key);
    device->second.status = status;
    device->second.actual_serial = adb.serial;
    if (created) device->second.reserved = -1;
  }
}

void AndListenerEx::GetDevicesInfoChange(const std::map<std::string, DeviceBasicInfo_>& previous,
                                         const std::map<std::string, DeviceBasicInfo_>& current,
                                         std::vector<DevicesStatusChangeInfo_>& changes) {
  for (const auto& [key, before] : previous) {
    const auto now = current.find(key);
    if (now == current.end()) {
      changes.push_back(Change(key, before.actual_serial, before.status, NotConnect));
    } else if (NumbersDiffer(before, now->second)) {
      const std::string& serial =
          before.actual_serial.empty() ? now->second.actual_serial : before.actual_serial;
      changes.push_back(Change(key, serial, before.status, now->second.status));
    }
  }
  for (const auto& [key, now] : current) {
    if (previous.count(key) == 0) changes.push_back(Change(key, now.actual_serial, NotConnect, now.status));
  }
}

void AndListenerEx::RefreshDeviceInfo(const std::map<std::string, DeviceBasicInfo_>& merged,
                                      std::map<std::string, DeviceInfo_>& details) {
  for (const auto& [key, device] : merged) {
    DeviceInfo_& record = details[key];
    record.actual_serial = device.actual_serial;
    record.status = device.status;
    record.vid = device.vid;
    record.pid = device.pid;
    record.usb_manufacturer = device.usb_manufacturer;
    record.usb_product = device.usb_product;
    record.manufacturer = device.reported_manufacturer;
    record.model = device.reported_model;
    if (record.status == AuthoredConnect) GetDeviceInfo(record.actual_serial, record);
  }
  for (auto record = details.begin(); record != details.end();) {
    record = merged.count(record->first) == 0 ? details.erase(record) : std::next(record);
  }
}

bool AndListenerEx::GetDeviceInfo(const std::string& serial, DeviceInfo_& details) {
  char buffer[kQueryBufferSize];
  if (details.os_version.empty()) {
    int ret = ReadProperty(AdbGetPhoneSoftVersion, serial, buffer);
    // The retries keep the buffer as the last try left it.
    for (int retry = 0; ret != 0 && retry < kVersionRetries; ++retry) {
      std::this_thread::sleep_for(kVersionRetryPause);
      ret = AdbGetPhoneSoftVersion(serial.c_str(), buffer, static_cast<int>(sizeof buffer), 0);
    }
    if (ret == 0) {
      const std::string version = BufferText(buffer);
      if (version == kClosedConnectionText) {
        // The colons and the comma are full-width, as the log has always shown them.
        LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "AdbGetPhoneSoftVersion() error code：%d， buffer：error: closed", ret);
        return false;
      }
      details.os_version = version;
    }
  }
  if (!FetchUnlessCached(AdbGetPhoneManufacturer, "AdbGetPhoneManufacturer", serial,
                         details.adb_manufacturer)) {
    return false;
  }
  details.manufacturer = details.adb_manufacturer;
  if (!FetchUnlessCached(AdbGetPhoneProductModel, "AdbGetPhoneProductModel", serial, details.adb_model)) {
    return false;
  }
  details.model = details.adb_model;
  return true;
}

std::string AndListenerEx::ConvertDeviceChangeToJson(
    const std::vector<DevicesStatusChangeInfo_>& changes,
    const std::map<std::string, DeviceInfo_>& details, int query_code) {
  Json::Value entries(Json::arrayValue);
  for (const DevicesStatusChangeInfo_* change : ReportOrder(changes, details)) {
    entries.append(ReportEntry(*change, details, query_code));
  }
  if (entries.empty()) return "";
  Json::Value root(Json::objectValue);
  root["changed"] = std::move(entries);
  return WriteReport(root);
}
