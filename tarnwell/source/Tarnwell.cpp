// The exported C layer: argument checks, the remembered adb location, logging, and the promise
// that no exception leaves. The work itself is in core/.
#include "Tarnwell.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "AdbClient.h"
#include "AdbLauncher.h"
#include "Deadline.h"
#include "DeviceTracker.h"
#include "HostProtocol.h"
#include "Quenwick.h"

// What AdbTrackDevices hands out.
struct TarnwellTracker {
  std::unique_ptr<tarnwell::DeviceTracker> tracker;
};

namespace {

constexpr char kLogCategory[] = "Tarnwell";
constexpr char kClosedText[] = "error: closed";

std::mutex s_settings_mutex;
std::string s_resource_dir;  // guarded by s_settings_mutex

// One start-up at a time: two would race to spawn adb on the same port. A flag under a mutex
// rather than a timed_mutex, whose clock-based lock the thread sanitizer cannot follow.
std::mutex s_start_mutex;
std::condition_variable s_start_done;
bool s_start_busy = false;  // guarded by s_start_mutex

// Holds the start-up turn for its lifetime, when it got one before the deadline.
class StartTurn {
 public:
  explicit StartTurn(const tarnwell::Deadline& deadline) {
    std::unique_lock<std::mutex> lock(s_start_mutex);
    held_ = s_start_done.wait_until(lock, deadline.When(), [] { return !s_start_busy; });
    if (held_) s_start_busy = true;
  }
  ~StartTurn() {
    if (!held_) return;
    {
      std::lock_guard<std::mutex> lock(s_start_mutex);
      s_start_busy = false;
    }
    s_start_done.notify_one();
  }
  StartTurn(const StartTurn&) = delete;
  StartTurn& operator=(const StartTurn&) = delete;
  bool held() const { return held_; }

 private:
  bool held_ = false;
};

// Devices whose property reads are answered from memory for a while: one that never answers
// would otherwise cost every caller the whole bound on every read, and one the server does not
// know a request that cannot succeed.
class Unreachable {
 public:
  // The code to answer with at once, or TARNWELL_OK when the device may be asked.
  int CodeFor(std::uint16_t port, const std::string& serial) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = devices_.find({port, serial});
    if (found == devices_.end()) return TARNWELL_OK;
    if (Clock::now() < found->second.until) return found->second.code;
    devices_.erase(found);
    return TARNWELL_OK;
  }
  void Remember(std::uint16_t port, const std::string& serial, int code) {
    std::lock_guard<std::mutex> lock(mutex_);
    // Devices that were never asked again would otherwise stay for good.
    const Clock::time_point now = Clock::now();
    for (auto entry = devices_.begin(); entry != devices_.end();) {
      entry = entry->second.until <= now ? devices_.erase(entry) : std::next(entry);
    }
    devices_[{port, serial}] =
        Entry{code, now + std::chrono::milliseconds(TARNWELL_UNREACHABLE_COOLDOWN_MS)};
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    int code;
    Clock::time_point until;
  };
  std::mutex mutex_;
  std::map<std::pair<std::uint16_t, std::string>, Entry> devices_;  // guarded by mutex_
};

Unreachable s_unreachable;

// A failure after which asking the same device again soon is pointless.
bool MeansUnreachable(int code, const std::string& why) {
  static const std::string kUnknownStart = "device '";
  static const std::string kUnknownEnd = "' not found";
  if (code == TARNWELL_ERR_TIMEOUT) return true;
  return code == TARNWELL_ERR_SERVER_FAIL && why.size() > kUnknownStart.size() + kUnknownEnd.size() &&
         why.compare(0, kUnknownStart.size(), kUnknownStart) == 0 &&
         why.compare(why.size() - kUnknownEnd.size(), kUnknownEnd.size(), kUnknownEnd) == 0;
}

// The free text of the states in the last list, by serial: each is logged when it first shows,
// not on every list ("no permissions" comes with a whole paragraph of adb's help).
std::mutex s_remarks_mutex;
std::map<std::string, std::string> s_logged_remarks;  // guarded by s_remarks_mutex

void LogNewRemarks(const std::vector<tarnwell::StateRemark>& remarks) {
  std::map<std::string, std::string> now;
  for (const tarnwell::StateRemark& remark : remarks) {
    now[remark.serial] = remark.state + " " + remark.remark;
  }
  std::lock_guard<std::mutex> lock(s_remarks_mutex);
  for (const auto& [serial, text] : now) {
    const auto before = s_logged_remarks.find(serial);
    if (before != s_logged_remarks.end() && before->second == text) continue;
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "AdbGetDevicesEx: %s: %s", serial.c_str(),
          text.c_str());
  }
  s_logged_remarks = std::move(now);
}

// One line per failure: the server's messages ("device unauthorized.\nThis adb server's...")
// span several lines.
void LogFailure(const char* function, int code, std::string why) {
  for (char& c : why) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s failed, error %d: %s", function, code, why.c_str());
}

// Runs body, turning any exception into a code and a log line.
template <typename Body>
int Guarded(const char* function, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    LogFailure(function, TARNWELL_ERR_NO_MEMORY, "out of memory");
    return TARNWELL_ERR_NO_MEMORY;
  } catch (const std::exception& e) {
    LogFailure(function, TARNWELL_ERR_IO, e.what());
    return TARNWELL_ERR_IO;
  } catch (...) {
    LogFailure(function, TARNWELL_ERR_IO, "unknown exception");
    return TARNWELL_ERR_IO;
  }
}

bool IsDirectory(const char* path) {
  struct stat info {};
  return ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

std::string RememberedResourceDir() {
  std::lock_guard<std::mutex> lock(s_settings_mutex);
  return s_resource_dir;
}

int CurrentPort(const char* function, std::uint16_t* port) {
  std::string why;
  int result = tarnwell::ServerPortFromEnvironment(port, &why);
  if (result != TARNWELL_OK) LogFailure(function, result, why);
  return result;
}

int ReadProperty(const char* function, const char* property, const char* serial, char* buffer,
                 int size) {
  if (serial == nullptr || *serial == '\0' || buffer == nullptr || size < 1) {
    LogFailure(function, TARNWELL_ERR_BAD_ARGUMENT, "null or empty serial, null buffer or size < 1");
    return TARNWELL_ERR_BAD_ARGUMENT;
  }
  std::uint16_t port = 0;
  int result = CurrentPort(function, &port);
  if (result != TARNWELL_OK) return result;
  result = s_unreachable.CodeFor(port, serial);
  if (result != TARNWELL_OK) return result;  // logged when the cool-down began
  std::string printed;
  std::string why;
  bool closed_early = false;
  result = tarnwell::QueryProperty(port, serial, property, &printed, &closed_early, &why);
  if (result != TARNWELL_OK) {
    const bool unreachable = MeansUnreachable(result, why);
    if (unreachable) s_unreachable.Remember(port, serial, result);
    LogFailure(function, result,
               std::string(serial) + ": " + why +
                   (unreachable ? "; its reads answer " + std::to_string(result) + " for " +
                                      std::to_string(TARNWELL_UNREACHABLE_COOLDOWN_MS) + " ms"
                                : std::string()));
    return result;
  }
  if (closed_early) {
    LogEx(kLogCategory, QUENWICK_LEVEL_WARNING, "%s: %s closed before answering", function, serial);
    printed = kClosedText;
  }
  tarnwell::CopyPropertyValue(printed, buffer, static_cast<std::size_t>(size));
  return TARNWELL_OK;
}

int StartDaemon(int flag) {
  static const char kFunction[] = "AdbStartDaemon";
  if (flag != 0 && flag != 1) {
    LogFailure(kFunction, TARNWELL_ERR_BAD_ARGUMENT, "flag " + std::to_string(flag));
    return TARNWELL_ERR_BAD_ARGUMENT;
  }
  tarnwell::Deadline deadline = tarnwell::Deadline::AfterMs(TARNWELL_START_TIMEOUT_MS);
  StartTurn turn(deadline);
  if (!turn.held()) {
    LogFailure(kFunction, TARNWELL_ERR_TIMEOUT, "another start-up did not finish in time");
    return TARNWELL_ERR_TIMEOUT;
  }
  std::uint16_t port = 0;
  int result = CurrentPort(kFunction, &port);
  if (result != TARNWELL_OK) return result;

  std::string why;
  if (flag == 1) {
    int version = 0;
    result = tarnwell::QueryServerVersion(port, &version, &why);
    if (result == TARNWELL_OK) return TARNWELL_OK;
    // Something listens but does not answer as it should: starting adb would not help and
    // could take a working server away, so report it instead.
    if (result != TARNWELL_ERR_NO_SERVER) {
      LogFailure(kFunction, result, "server on port " + std::to_string(port) + ": " + why);
      return result;
    }
  }
  std::string adb = tarnwell::LocateAdb(RememberedResourceDir());
  if (adb.empty()) {
    LogFailure(kFunction, TARNWELL_ERR_NO_ADB, "no adb in the resource folder or on PATH");
    return TARNWELL_ERR_NO_ADB;
  }
  result = tarnwell::StartServer(adb, port, deadline, &why);
  if (result != TARNWELL_OK) LogFailure(kFunction, result, why);
  return result;
}

int GetDevices(char** list, int* device_count) {
  static const char kFunction[] = "AdbGetDevicesEx";
  if (list == nullptr) {
    LogFailure(kFunction, TARNWELL_ERR_BAD_ARGUMENT, "null list pointer");
    return TARNWELL_ERR_BAD_ARGUMENT;
  }
  std::uint16_t port = 0;
  int result = CurrentPort(kFunction, &port);
  if (result != TARNWELL_OK) return result;
  std::string text;
  std::string why;
  int count = 0;
  std::vector<tarnwell::StateRemark> remarks;
  result = tarnwell::QueryDeviceList(port, &text, &count, &remarks, &why);
  if (result != TARNWELL_OK) {
    LogFailure(kFunction, result, why);
    return result;
  }
  LogNewRemarks(remarks);
  char* copy = nullptr;
  if (!text.empty()) {
    copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
      LogFailure(kFunction, TARNWELL_ERR_NO_MEMORY, "list text");
      return TARNWELL_ERR_NO_MEMORY;
    }
    std::memcpy(copy, text.c_str(), text.size() + 1);
  }
  *list = copy;
  if (device_count != nullptr) *device_count = count;
  return TARNWELL_OK;
}

int SdkInit(const char* resource_dir, const char* config_dir, const char* log_dir) {
  static const char kFunction[] = "AdbSdkInit";
  const char* folders[] = {resource_dir, config_dir, log_dir};
  for (const char* folder : folders) {
    if (folder == nullptr || *folder == '\0') {
      LogFailure(kFunction, TARNWELL_ERR_BAD_ARGUMENT, "null or empty folder");
      return TARNWELL_ERR_BAD_ARGUMENT;
    }
    if (!IsDirectory(folder)) {
      LogFailure(kFunction, TARNWELL_ERR_NO_FOLDER, std::string("no such folder: ") + folder);
      return TARNWELL_ERR_NO_FOLDER;
    }
  }
  {
    std::lock_guard<std::mutex> lock(s_settings_mutex);
    s_resource_dir = resource_dir;
  }
  std::string adb = tarnwell::LocateAdb(resource_dir);
  if (adb.empty()) {
    LogFailure(kFunction, TARNWELL_ERR_NO_ADB,
               std::string("no adb in ") + resource_dir + " or on PATH");
    return TARNWELL_ERR_NO_ADB;
  }
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s: using %s", kFunction, adb.c_str());
  return TARNWELL_OK;
}

int TrackDevices(TarnwellTrackCallback callback, void* context, TarnwellTracker** tracker) {
  static const char kFunction[] = "AdbTrackDevices";
  if (callback == nullptr || tracker == nullptr) {
    LogFailure(kFunction, TARNWELL_ERR_BAD_ARGUMENT, "null callback or tracker");
    return TARNWELL_ERR_BAD_ARGUMENT;
  }
  std::uint16_t port = 0;
  int result = CurrentPort(kFunction, &port);
  if (result != TARNWELL_OK) return result;
  auto handle = std::make_unique<TarnwellTracker>();
  std::string why;
  result = tarnwell::DeviceTracker::Start(
      port,
      [callback, context, port](tarnwell::DeviceTracker::Event event, int code, const std::string& text) {
        if (event == tarnwell::DeviceTracker::Event::kChanged) {
          callback(context, TARNWELL_TRACK_CHANGED, TARNWELL_OK);
          return;
        }
        LogEx(kLogCategory, QUENWICK_LEVEL_WARNING, "%s: tracking on port %u ended, error %d: %s", kFunction,
              static_cast<unsigned>(port), code, text.c_str());
        callback(context, TARNWELL_TRACK_ENDED, code);
      },
      &handle->tracker, &why);
  if (result != TARNWELL_OK) {
    LogFailure(kFunction, result, why);
    return result;
  }
  *tracker = handle.release();
  return TARNWELL_OK;
}

}  // namespace

extern "C" {

int AdbSdkInit(const char* resource_dir, const char* config_dir, const char* log_dir) {
  return Guarded("AdbSdkInit", [&] { return SdkInit(resource_dir, config_dir, log_dir); });
}

int AdbStartDaemon(int flag, int /*reserved*/) {
  return Guarded("AdbStartDaemon", [&] { return StartDaemon(flag); });
}

int AdbGetDevicesEx(char** list, int* device_count, int /*reserved*/) {
  return Guarded("AdbGetDevicesEx", [&] { return GetDevices(list, device_count); });
}

int AdbFreeResource(char** list) {
  if (list != nullptr) {
    std::free(*list);
    *list = nullptr;
  }
  return TARNWELL_OK;
}

int AdbGetPhoneSoftVersion(const char* serial, char* buffer, int size, int /*reserved*/) {
  return Guarded("AdbGetPhoneSoftVersion", [&] {
    return ReadProperty("AdbGetPhoneSoftVersion", "ro.build.version.release", serial, buffer, size);
  });
}

int AdbGetPhoneManufacturer(const char* serial, char* buffer, int size, int /*reserved*/) {
  return Guarded("AdbGetPhoneManufacturer", [&] {
    return ReadProperty("AdbGetPhoneManufacturer", "ro.product.manufacturer", serial, buffer, size);
  });
}

int AdbGetPhoneProductModel(const char* serial, char* buffer, int size, int /*reserved*/) {
  return Guarded("AdbGetPhoneProductModel", [&] {
    return ReadProperty("AdbGetPhoneProductModel", "ro.product.model", serial, buffer, size);
  });
}

int AdbTrackDevices(TarnwellTrackCallback callback, void* context, TarnwellTracker** tracker) {
  return Guarded("AdbTrackDevices", [&] { return TrackDevices(callback, context, tracker); });
}

int AdbStopTrackDevices(TarnwellTracker* tracker) {
  return Guarded("AdbStopTrackDevices", [&] {
    if (tracker == nullptr) return TARNWELL_OK;
    if (tracker->tracker != nullptr && tracker->tracker->OnOwnThread()) {
      LogFailure("AdbStopTrackDevices", TARNWELL_ERR_BAD_ARGUMENT, "called from the tracker's own callback");
      return TARNWELL_ERR_BAD_ARGUMENT;
    }
    delete tracker;
    return TARNWELL_OK;
  });
}

}  // extern "C"
