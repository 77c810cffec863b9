#include "FakeTarnwell.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Tarnwell.h"

namespace {

std::mutex g_mutex;
fake_adb::Script g_script;
std::vector<std::string> g_calls;
TarnwellTrackCallback g_track_callback = nullptr;
void* g_track_context = nullptr;

fake_adb::Script Record(const std::string& call) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back(call);
  return g_script;
}

int Answer(const std::string& call) {
  const fake_adb::Script script = Record(call);
  const auto code = script.codes.find(call);
  return code == script.codes.end() ? 0 : code->second;
}

int ReadProperty(const char* function, const char* property, const char* serial, char* buffer,
                 int size) {
  const fake_adb::Script script = Record(std::string(function) + ":" + serial);
  std::string value;
  const int ret = script.property ? script.property(serial, property, &value) : 0;
  const size_t n = std::min(value.size(), static_cast<size_t>(size - 1));
  std::memcpy(buffer, value.data(), n);
  buffer[n] = '\0';
  return ret;
}

}  // namespace

namespace fake_adb {

void SetScript(Script script) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_script = std::move(script);
}

void SetList(const std::string& list, int code) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_script.list = list;
  g_script.list_code = code;
}

void Reset() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_script = Script{};
  g_calls.clear();
}

bool Track(int event, int code) {
  std::lock_guard<std::mutex> lock(g_mutex);  // held, so that a stop waits for the call as the real one does
  if (g_track_callback == nullptr) return false;
  g_track_callback(g_track_context, event, code);
  return true;
}

std::vector<std::string> Calls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}

}  // namespace fake_adb

extern "C" int AdbSdkInit(const char* resource, const char* config, const char* log) {
  return Answer(std::string("AdbSdkInit:") + resource + "," + config + "," + log);
}

extern "C" int AdbStartDaemon(int flag, int reserved) {
  return Answer("AdbStartDaemon:" + std::to_string(flag) + "," + std::to_string(reserved));
}

// A list the library fails to hand back is a leak that the ASan build reports.
extern "C" int AdbGetDevicesEx(char** list, int* device_count, int) {
  const fake_adb::Script script = Record("AdbGetDevicesEx");
  if (script.list_code != 0) return script.list_code;
  *device_count = 0;
  *list = script.list.empty() ? nullptr : strdup(script.list.c_str());
  return 0;
}

extern "C" int AdbFreeResource(char** list) {
  Record("AdbFreeResource");
  std::free(*list);
  *list = nullptr;
  return 0;
}

extern "C" int AdbGetPhoneSoftVersion(const char* serial, char* buffer, int size, int) {
  return ReadProperty("AdbGetPhoneSoftVersion", "ro.build.version.release", serial, buffer, size);
}

extern "C" int AdbGetPhoneManufacturer(const char* serial, char* buffer, int size, int) {
  return ReadProperty("AdbGetPhoneManufacturer", "ro.product.manufacturer", serial, buffer, size);
}

extern "C" int AdbGetPhoneProductModel(const char* serial, char* buffer, int size, int) {
  return ReadProperty("AdbGetPhoneProductModel", "ro.product.model", serial, buffer, size);
}

extern "C" int AdbTrackDevices(TarnwellTrackCallback callback, void* context, TarnwellTracker** tracker) {
  const int code = Answer("AdbTrackDevices");
  if (code != 0) return code;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_track_callback = callback;
  g_track_context = context;
  *tracker = reinterpret_cast<TarnwellTracker*>(&g_track_callback);
  return 0;
}

extern "C" int AdbStopTrackDevices(TarnwellTracker* tracker) {
  Record("AdbStopTrackDevices");
  std::lock_guard<std::mutex> lock(g_mutex);
  if (tracker != nullptr) g_track_callback = nullptr;
  return 0;
}
