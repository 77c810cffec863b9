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
#include "FakeTarnwell.h"

namespace {

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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  if (!IsValidUtf8(Latin1FallbackUtf8(input))) std::abort();
  // The input cut at NUL bytes: the ADB list text, then properties, then USB devices; at least four.
  std::vector<std::string> pieces;
  for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = input.find('\0', start);
    pieces.push_back(input.substr(start, end == std::string::npos ? end : end - start));
  }
  if (pieces.size() < 4) pieces.resize(4);
  fake_adb::Reset();  // the stand-in ADB answers from the pieces
  fake_adb::Script script;
  script.list = pieces[0];
  script.property = [&pieces](const std::string&, const std::string& property, std::string* value) {
    const size_t piece = property == "ro.build.version.release" ? 1 : property == "ro.product.manufacturer" ? 2 : 3;
    *value = pieces[piece];
    // Some manufacturer and model answers fail; a failing version would cost 400 ms of retries.
    return piece != 1 && value->size() % 7 == 3 ? 105 : 0;
  };
  fake_adb::SetScript(script);

  std::map<std::string, DeviceAuthorInfo_> adb;
  GetDevicesAuthorStatusEx(adb);
  std::map<std::string, DeviceModleInfo> usb;
  for (size_t i = 4; i + 2 < pieces.size(); i += 3) {
    DeviceModleInfo& device = usb[GetLowerCaseString(pieces[i])];
    device.serial = pieces[i];
    device.vid = static_cast<uint16_t>(device.serial.size() * 257);
    device.manufacturer = pieces[i + 1];
    device.product = pieces[i + 2];
  }
  static AndListenerEx listener(CheckReport, {nullptr, std::chrono::milliseconds(0), true});
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_code = 0;
  listener.DealListenInfo(&usb, &adb, &previous, 0, &last_code);
  listener.DealListenInfo(&usb, nullptr, &previous, static_cast<int>(size % 3), &last_code);
  return 0;
}
