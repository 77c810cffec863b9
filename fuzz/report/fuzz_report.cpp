// Outside bytes on their way to the host: ADB's device list text, USB strings and serials, and
// the properties a phone answers with, through one poll. Every report must be valid JSON whose
// texts are the bytes given, valid UTF-8 passing unchanged.
#include <json/json.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "AndListenerEx.h"
#include "Common.h"
#include "Tarnwell.h"

namespace {

// The input cut at NUL bytes: the ADB list text, then properties, then USB devices; at least four.
std::vector<std::string> g_pieces;

int Answer(size_t piece, char* buffer, int size) {
  const std::string& text = g_pieces[piece];
  const size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
  // Some manufacturer and model answers fail; a failing version would cost 400 ms of retries.
  return piece != 1 && text.size() % 7 == 3 ? 105 : 0;
}

bool IsValidUtf8(const std::string& text) { return Latin1FallbackUtf8(text) == text; }

int CheckReport(const char* report, int length) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  Json::Value root;
  std::string errors;
  std::istringstream in(std::string(report, static_cast<size_t>(length)));
  if (static_cast<size_t>(length) != std::strlen(report) || !Json::parseFromStream(builder, in, &root, &errors)) {
    std::abort();
  }
  for (const Json::Value& entry : root["changed"]) {
    if (entry.size() != 11 || !IsValidUtf8(entry["key_serial"].asString())) std::abort();
  }
  return 0;
}

}  // namespace

extern "C" int AdbSdkInit(const char*, const char*, const char*) { return 0; }
extern "C" int AdbStartDaemon(int, int) { return 0; }
extern "C" int AdbGetDevicesEx(char** list, int* count, int) {
  *list = strdup(g_pieces[0].c_str());
  *count = 0;
  return 0;
}
extern "C" int AdbFreeResource(char** list) {
  std::free(*list);
  *list = nullptr;
  return 0;
}
extern "C" int AdbGetPhoneSoftVersion(const char*, char* buffer, int size, int) { return Answer(1, buffer, size); }
extern "C" int AdbGetPhoneManufacturer(const char*, char* buffer, int size, int) { return Answer(2, buffer, size); }
extern "C" int AdbGetPhoneProductModel(const char*, char* buffer, int size, int) { return Answer(3, buffer, size); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  if (!IsValidUtf8(Latin1FallbackUtf8(input))) std::abort();
  g_pieces.clear();
  for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = input.find('\0', start);
    g_pieces.push_back(input.substr(start, end == std::string::npos ? end : end - start));
  }
  if (g_pieces.size() < 4) g_pieces.resize(4);

  std::map<std::string, DeviceAuthorInfo_> adb;
  GetDevicesAuthorStatusEx(adb);
  std::map<std::string, DeviceModleInfo> usb;
  for (size_t i = 4; i + 2 < g_pieces.size(); i += 3) {
    DeviceModleInfo& device = usb[GetLowerCaseString(g_pieces[i])];
    device.serial = g_pieces[i];
    device.vid = static_cast<uint16_t>(device.serial.size() * 257);
    device.manufacturer = g_pieces[i + 1];
    device.product = g_pieces[i + 2];
  }
  static AndListenerEx listener(CheckReport);
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_code = 0;
  listener.DealListenInfo(&usb, &adb, &previous, 0, &last_code);
  listener.DealListenInfo(&usb, nullptr, &previous, static_cast<int>(size % 3), &last_code);
  return 0;
}
