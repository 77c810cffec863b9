#include "DeviceTable.h"

#include <json/json.h>

#include <memory>

namespace monitor {

namespace {

constexpr const char* kNotConnect = "NotConnect";

std::string StringMember(const Json::Value& entry, const char* key) {
  const Json::Value& value = entry[key];
  return value.isString() ? value.asString() : std::string();
}

uint32_t IdMember(const Json::Value& entry, const char* key) {
  const Json::Value& value = entry[key];
  if (!value.isUInt()) return 0;
  const Json::UInt id = value.asUInt();
  return id <= 0xFFFFFFFFu ? static_cast<uint32_t>(id) : 0;
}

// Later reports for a device that is still there may leave a text or an ID out (a device that
// went offline has no fresh details); what was known stays on the row.
void KeepIfSet(const std::string& value, std::string* field) {
  if (!value.empty()) *field = value;
}

bool ParseReport(const std::string& report, Json::Value* root, std::string* error) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string parse_error;
  if (!reader->parse(report.data(), report.data() + report.size(), root, &parse_error)) {
    *error = "report is not JSON: " + parse_error;
    return false;
  }
  if (!root->isObject() || !(*root)["changed"].isArray()) {
    *error = "report has no \"changed\" array";
    return false;
  }
  for (const Json::Value& entry : (*root)["changed"]) {
    if (!entry.isObject() || !entry["key_serial"].isString() ||
        !entry["new_status"].isString()) {
      *error = "report entry without \"key_serial\" or \"new_status\"";
      return false;
    }
  }
  return true;
}

}  // namespace

bool DeviceTable::Apply(const std::string& report, std::string* error) {
  Json::Value root;
  if (!ParseReport(report, &root, error)) return false;

  for (auto it = rows_.begin(); it != rows_.end();) {
    if (it->second.mark == ChangeMark::kLeft) {
      it = rows_.erase(it);
    } else {
      it->second.mark = ChangeMark::kNone;
      ++it;
    }
  }

  for (const Json::Value& entry : root["changed"]) {
    const std::string key = entry["key_serial"].asString();
    const std::string new_status = entry["new_status"].asString();
    const std::string old_status = StringMember(entry, "old_status");
    const Json::Value& code = entry["adb_error_code"];
    if (code.isInt64()) last_adb_error_code_ = code.asInt64();

    const bool known = rows_.count(key) != 0;
    DeviceRow& row = rows_[key];
    row.key_serial = key;
    row.previous_status = old_status;
    row.status = new_status;
    KeepIfSet(StringMember(entry, "actual_serial"), &row.actual_serial);
    KeepIfSet(StringMember(entry, "vid_manufacturer"), &row.vendor_name);
    KeepIfSet(StringMember(entry, "manufacturer"), &row.manufacturer);
    KeepIfSet(StringMember(entry, "model"), &row.model);
    KeepIfSet(StringMember(entry, "os_version"), &row.os_version);
    if (const uint32_t vid = IdMember(entry, "vid")) row.vid = vid;
    if (const uint32_t pid = IdMember(entry, "pid")) row.pid = pid;

    if (new_status == kNotConnect) {
      row.mark = ChangeMark::kLeft;
    } else if (!known || old_status == kNotConnect) {
      row.mark = ChangeMark::kArrived;
    } else {
      row.mark = ChangeMark::kChanged;
    }
  }
  ++reports_;
  return true;
}

std::vector<DeviceRow> DeviceTable::Rows() const {
  std::vector<DeviceRow> rows;
  rows.reserve(rows_.size());
  for (const auto& entry : rows_) rows.push_back(entry.second);
  return rows;
}

size_t DeviceTable::PresentCount() const {
  size_t count = 0;
  for (const auto& entry : rows_) count += entry.second.mark != ChangeMark::kLeft;
  return count;
}

}  // namespace monitor
