// The JSON change report, written with JsonCpp as the host reads it.
#include "ChangeReport.h"

#include <json/json.h>

#include <memory>
#include <set>
#include <sstream>

#include "AndListenerEx.h"
#include "Common.h"
#include "LoadConfig.h"

namespace {

// Vendors whose USB manufacturer string is reported even when empty: chipset vendors whose ID
// says little about the maker of the phone.
bool IsChipsetVendor(uint32_t vid) { return vid == kVidQualcomm || vid == kVidGoogle || vid == kVidMediaTek; }

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
