// One run of pelmora-monitor: folders, the four calls into libPelmora, the report loop and the
// orderly stop. The library is reached only through PelmoraApi, so tests can run a session
// against a stand-in.
#pragma once

#include <functional>
#include <string>

#include "MonitorOptions.h"

namespace monitor {

using ReportCallback = int (*)(const char* report, int length);

struct PelmoraApi {
  int (*init)(const char* config_dir, const char* resource_dir, const char* log_dir);
  int (*start_adb_server)(bool have_adb_been_killed);
  int (*start_listen)(ReportCallback callback);
  void (*stop_listen)();
};

enum ExitCode {
  kExitOk = 0,
  kExitUsage = 2,
  kExitBadFolder = 3,
  kExitInitFailed = 4,
  kExitAdbFailed = 5,
  kExitListenFailed = 6,
};

struct SessionSettings {
  MonitorOptions options;
  bool redraw = false;  // stdout is a terminal: clear the screen before each table
  bool color = false;
  // After Stop, the poll thread may still deliver the report of a poll under way and then sleeps
  // about a second before it ends: wait this long after Stop and after each late report...
  int drain_ms = 1100;
  // ...but never longer than this after Stop.
  int drain_cap_ms = 5000;
  std::function<bool(const std::string&)> out;  // false when the text could not be written
  std::function<void(const std::string&)> err;
  std::function<std::string()> now_text;        // clock time for the table's heading
};

// Creates the log folder, and the resource folder when it is the default one; checks that the
// configuration folder holds "AndroidVID.ini". Returns "" or what is wrong.
std::string PrepareFolders(const MonitorOptions& options);

// "CODE (NAME): meaning" for a code of libPelmora or libTarnwell.
std::string DescribeCode(int code);

// Whether the configuration folder's vendor list has a line the library takes as a vendor: a
// list without one loads, and then no USB device is ever taken for a phone.
bool VendorListNamesAVendor(const std::string& config_dir);

int RunMonitor(const PelmoraApi& api, const SessionSettings& settings);

}  // namespace monitor
