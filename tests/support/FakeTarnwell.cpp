#include "FakeTarnwell.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Tarnwell.h"

namespace {

std::mutex g_mutex;
fake_adb::Script g_script;
std::vector<std::string> g_calls;
int g_outstanding = 0;

fake_adb::Script Record(const std::string& call) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back(call);
  return g_script;
}

int ReadProperty(const char* function, const char* property, const char* serial, char* buffer,
                 int size) {
  const std::string serial_text = serial ? serial : "";
  const fake_adb::Script script = Record(std::string(function) + ":" + serial_text);
  if (serial == nullptr || buffer == nullptr || size < 1) return TARNWELL_ERR_BAD_ARGUMENT;
  std::string value;
  const int ret = script.property ? script.property(serial_text, property, &value) : 0;
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

void Reset() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_script = Script{};
  g_calls.clear();
  g_outstanding = 0;
}

std::vector<std::string> Calls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}

int OutstandingLists() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_outstanding;
}

}  // namespace fake_adb

extern "C" int AdbSdkInit(const char* resource, const char* config, const char* log) {
  const fake_adb::Script script = Record(std::string("AdbSdkInit:") + (resource ? resource : "(null)") +
                                         "," + (config ? config : "(null)") + "," + (log ? log : "(null)"));
  return script.sdk_init ? script.sdk_init(resource ? resource : "", config ? config : "",
                                           log ? log : "")
                         : 0;
}

extern "C" int AdbStartDaemon(int flag, int reserved) {
  const fake_adb::Script script =
      Record("AdbStartDaemon:" + std::to_string(flag) + "," + std::to_string(reserved));
  return script.start_daemon ? script.start_daemon(flag, reserved) : 0;
}

extern "C" int AdbGetDevicesEx(char** list, int* device_count, int) {
  const fake_adb::Script script = Record("AdbGetDevicesEx");
  if (list == nullptr) return TARNWELL_ERR_BAD_ARGUMENT;
  std::string text;
  const int ret = script.devices ? script.devices(&text) : 0;
  if (ret != 0) return ret;
  if (device_count) *device_count = 0;
  *list = nullptr;
  if (!text.empty()) {
    *list = static_cast<char*>(std::malloc(text.size() + 1));
    std::memcpy(*list, text.c_str(), text.size() + 1);
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_outstanding;
  }
  return 0;
}

extern "C" int AdbFreeResource(char** list) {
  Record("AdbFreeResource");
  if (list != nullptr && *list != nullptr) {
    std::free(*list);
    *list = nullptr;
    std::lock_guard<std::mutex> lock(g_mutex);
    --g_outstanding;
  }
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
