// The devices the monitor has been told of, built from the library's reports, with what the last
// report changed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace monitor {

enum class ChangeMark { kNone, kArrived, kChanged, kLeft };

struct DeviceRow {
  std::string key_serial;
  std::string actual_serial;
  std::string status;            // "NotConnect" ... "AuthoredConnect"
  std::string previous_status;   // the report's old status
  std::string vendor_name;       // "vid_manufacturer"
  std::string manufacturer;
  std::string model;
  std::string os_version;
  uint32_t vid = 0;
  uint32_t pid = 0;
  ChangeMark mark = ChangeMark::kNone;
};

class DeviceTable {
 public:
  // Applies one report text. On malformed text returns false with a reason and leaves the table as
  // it was. Rows that left with the previous report are dropped now; the rows of this report carry
  // its marks, every other row none.
  bool Apply(const std::string& report, std::string* error);

  // In key-serial order, rows that just left included.
  std::vector<DeviceRow> Rows() const;
  // Devices present now (rows that just left excluded).
  size_t PresentCount() const;
  // The ADB query code of the last report (0 = the query succeeded).
  int64_t LastAdbErrorCode() const { return last_adb_error_code_; }
  bool HasReport() const { return reports_ > 0; }

 private:
  std::map<std::string, DeviceRow> rows_;
  int64_t last_adb_error_code_ = 0;
  size_t reports_ = 0;
};

}  // namespace monitor
