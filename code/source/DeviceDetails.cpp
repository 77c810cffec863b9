// The detail cache: what ADB says of each authorised phone, read once and kept while it stays.
#include "DeviceDetails.h"

#include <cstring>

#include "AndListenerEx.h"
#include "Common.h"
#include "Quenwick.h"
#include "Tarnwell.h"

namespace {

constexpr size_t kQueryBufferSize = 100;
constexpr int kVersionRetries = 4;
constexpr std::chrono::milliseconds kVersionRetryPause{100};
// What libTarnwell answers when the phone's link closed before the shell did: no value at all.
constexpr const char* kClosedConnectionText = "error: closed";

// One property read into a zeroed buffer; the text up to the first NUL.
using PropertyRead = int (*)(const char*, char*, int, int);
int ReadProperty(PropertyRead read, const std::string& serial, char (&buffer)[kQueryBufferSize]) {
  std::memset(buffer, 0, sizeof buffer);
  return read(serial.c_str(), buffer, static_cast<int>(sizeof buffer), 0);
}
std::string BufferText(const char (&buffer)[kQueryBufferSize]) {
  return std::string(buffer, strnlen(buffer, sizeof buffer));
}

// A link that closed mid-read answered nothing: logged as a failure, and nothing is kept.
bool IsClosedLink(const char* name, int ret, const std::string& text) {
  if (text != kClosedConnectionText) return false;
  // The colons and the comma are full-width, as the log has always shown them.
  LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s() error code：%d， buffer：error: closed", name, ret);
  return true;
}

// One property kept until the phone leaves: asked only while the cached text is empty. False, with
// the failure logged, when the query fails.
bool FetchUnlessCached(PropertyRead read, const char* name, const std::string& serial, std::string& cached) {
  if (!cached.empty()) return true;
  char buffer[kQueryBufferSize];
  const int ret = ReadProperty(read, serial, buffer);
  if (ret != 0) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s() error %d", name, ret);
    return false;
  }
  if (IsClosedLink(name, ret, BufferText(buffer))) return false;
  cached = BufferText(buffer);
  return true;
}

}  // namespace

int KnownAdbTexts(const DeviceInfo_& record) {
  return !record.os_version.empty() + !record.adb_manufacturer.empty() + !record.adb_model.empty();
}

DetailReads::DetailReads(std::function<void()> on_read_ended, std::chrono::milliseconds retry_pause,
                         bool inline_reads)
    : on_read_ended_(std::move(on_read_ended)), retry_pause_(retry_pause), inline_reads_(inline_reads) {}

DetailReads::~DetailReads() {
  std::map<std::string, std::unique_ptr<Read>> reads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reads.swap(reads_);
  }
  for (auto& [key, read] : reads) {
    if (read->thread.joinable()) read->thread.join();
  }
}

void DetailReads::Start(const std::string& key, const DeviceInfo_& record, Clock::time_point now) {
  const auto gap = incomplete_.find(key);
  if (gap != incomplete_.end() && now < gap->second + retry_pause_) return;
  auto read = std::make_unique<Read>();
  read->texts = record;
  Read* started = read.get();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!reads_.emplace(key, std::move(read)).second) return;  // one under way already
  }
  if (inline_reads_) {
    Run(started);
    return;
  }
  try {
    std::thread thread(&DetailReads::Run, this, started);
    std::lock_guard<std::mutex> lock(mutex_);
    started->thread = std::move(thread);
  } catch (const std::system_error& e) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "No thread for the details of %s: %s", record.actual_serial.c_str(),
          e.what());
    std::lock_guard<std::mutex> lock(mutex_);
    reads_.erase(key);  // tried again on a later poll
  }
}

void DetailReads::Run(Read* read) {
  DeviceInfo_ texts = read->texts;  // written before this thread started, and not since
  AndListenerEx::GetDeviceInfo(texts.actual_serial, texts);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    read->texts = std::move(texts);
    read->ended = true;
    read->ended_at = Clock::now();
  }
  on_read_ended_();
}

void DetailReads::Collect(std::map<std::string, DeviceInfo_>& cache) {
  std::map<std::string, std::unique_ptr<Read>> ended;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto read = reads_.begin(); read != reads_.end();) {
      if (!read->second->ended) {
        ++read;
        continue;
      }
      ended.insert(reads_.extract(read++));
    }
  }
  for (auto& [key, read] : ended) {
    if (read->thread.joinable()) read->thread.join();
    const auto record = cache.find(key);
    if (KnownAdbTexts(read->texts) < 3) {
      incomplete_[key] = read->ended_at;
    } else {
      incomplete_.erase(key);
    }
    if (record == cache.end()) continue;  // the phone left while it was read
    DeviceInfo_& cached = record->second;
    for (auto [have, got] : {std::pair{&cached.os_version, &read->texts.os_version},
                             std::pair{&cached.adb_manufacturer, &read->texts.adb_manufacturer},
                             std::pair{&cached.adb_model, &read->texts.adb_model}}) {
      if (have->empty()) *have = *got;
    }
    cached.details_read = true;
  }
  for (auto gap = incomplete_.begin(); gap != incomplete_.end();) {
    gap = cache.count(gap->first) == 0 ? incomplete_.erase(gap) : std::next(gap);
  }
}

void AndListenerEx::RefreshDeviceInfo(const std::map<std::string, DeviceBasicInfo_>& merged,
                                      std::map<std::string, DeviceInfo_>& details) {
  const auto now = DetailReads::Clock::now();
  for (const auto& [key, device] : merged) {
    DeviceInfo_& record = details[key];
    record.actual_serial = device.actual_serial;
    record.status = device.status;
    record.vid = device.vid;
    record.pid = device.pid;
    record.usb_manufacturer = device.usb_manufacturer;
    record.usb_product = device.usb_product;
    if (record.status != AuthoredConnect) record.details_read = false;
    if (record.status == AuthoredConnect && KnownAdbTexts(record) < 3) m_detail_reads.Start(key, record, now);
  }
  for (auto record = details.begin(); record != details.end();) {
    record = merged.count(record->first) == 0 ? details.erase(record) : std::next(record);
  }
  // Reads that ended since the last poll, or meanwhile (all of them, when they run inline), count
  // for this one; a read that has ended but is not collected yet is not started again.
  m_detail_reads.Collect(details);
  for (const auto& [key, device] : merged) {
    DeviceInfo_& record = details[key];
    const bool authorised = record.status == AuthoredConnect;
    record.manufacturer = authorised && !record.adb_manufacturer.empty() ? record.adb_manufacturer
                                                                         : device.reported_manufacturer;
    record.model = authorised && !record.adb_model.empty() ? record.adb_model : device.reported_model;
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
      if (IsClosedLink("AdbGetPhoneSoftVersion", ret, BufferText(buffer))) return false;
      details.os_version = BufferText(buffer);
    }
  }
  if (!FetchUnlessCached(AdbGetPhoneManufacturer, "AdbGetPhoneManufacturer", serial, details.adb_manufacturer)) {
    return false;
  }
  details.manufacturer = details.adb_manufacturer;
  if (!FetchUnlessCached(AdbGetPhoneProductModel, "AdbGetPhoneProductModel", serial, details.adb_model)) {
    return false;
  }
  details.model = details.adb_model;
  return true;
}
