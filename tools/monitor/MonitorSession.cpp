#include "MonitorSession.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <vector>

#include "DeviceTable.h"
#include "JsonLines.h"
#include "LoadConfig.h"
#include "Pelmora.h"
#include "PelmoraCodes.h"
#include "ReportQueue.h"
#include "ShutdownSignals.h"
#include "TableRenderer.h"

namespace fs = std::filesystem;

namespace monitor {

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kClearScreen = "\x1b[H\x1b[2J";

// The callback is a plain function pointer, so the queue it fills is process-wide. It is never
// freed: the library's poll thread may still call back while the process exits.
ReportQueue& SessionQueue() {
  static ReportQueue* queue = new ReportQueue;
  return *queue;
}

int OnReport(const char* report, int length) {
  SessionQueue().Push(report, length);
  return 0;
}

std::string CheckFolder(const fs::path& folder, const char* what, bool create) {
  std::error_code ec;
  if (create) fs::create_directories(folder, ec);
  if (!fs::is_directory(folder, ec)) {
    return std::string(what) + " \"" + folder.string() + "\" " +
           (fs::exists(folder, ec) ? "is not a folder" : "does not exist");
  }
  return "";
}

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// What one wait for events brought.
struct Wakeup {
  bool signal = false;
  bool reports = false;
};

Wakeup WaitForEvents(ShutdownSignals& signals, int timeout_ms) {
  pollfd fds[2] = {{signals.fd(), POLLIN, 0}, {SessionQueue().wake_fd(), POLLIN, 0}};
  Wakeup wakeup;
  if (::poll(fds, 2, timeout_ms) <= 0) return wakeup;  // timeout, or EINTR: the caller loops
  if (fds[0].revents != 0) wakeup.signal = signals.Drain() > 0;
  wakeup.reports = fds[1].revents != 0;
  return wakeup;
}

class ReportPrinter {
 public:
  explicit ReportPrinter(const SessionSettings& settings) : settings_(settings) {}

  // False once the output is gone (a closed pipe): there is no one left to tell.
  bool Show(const std::string& report) {
    if (!output_ok_) return false;
    std::string error;
    if (settings_.options.json) {
      std::string line;
      if (!ToJsonLine(report, &line, &error)) {
        settings_.err("pelmora-monitor: a report was skipped: " + error + "\n");
        return true;
      }
      output_ok_ = settings_.out(line + "\n");
      return output_ok_;
    }
    if (!table_.Apply(report, &error)) {
      settings_.err("pelmora-monitor: a report was skipped: " + error + "\n");
      return true;
    }
    return ShowTable();
  }

  bool ShowTable() {
    RenderStyle style;
    style.color = settings_.color;
    style.heading = "pelmora-monitor  " + (settings_.now_text ? settings_.now_text() : "") +
                    (settings_.options.once ? "" : "  (Ctrl-C to quit)");
    const std::string prefix = settings_.redraw && !settings_.options.once ? kClearScreen : "";
    output_ok_ = settings_.out(prefix + RenderTable(table_, style) + (settings_.redraw ? "" : "\n"));
    return output_ok_;
  }

  bool NoDevice() {
    // JSON Lines stay pure JSON: the remark goes to stderr there.
    if (settings_.options.json) {
      settings_.err("no Android device\n");
      return true;
    }
    output_ok_ = settings_.out("no Android device\n");
    return output_ok_;
  }

 private:
  const SessionSettings& settings_;
  DeviceTable table_;
  bool output_ok_ = true;
};

// Until a signal, a closed output, or (with --once) the first report or the end of the wait.
void Listen(ShutdownSignals& signals, ReportPrinter& printer, const MonitorOptions& options) {
  const Clock::time_point once_deadline = Clock::now() + std::chrono::milliseconds(options.once_wait_ms);
  for (;;) {
    const Wakeup wakeup = WaitForEvents(signals, options.once ? MillisecondsUntil(once_deadline) : -1);
    if (wakeup.signal) return;
    if (wakeup.reports) {
      std::vector<std::string> reports = SessionQueue().TakeAll();
      if (options.once && !reports.empty()) {
        printer.Show(reports.front());
        return;
      }
      for (const std::string& report : reports) {
        if (!printer.Show(report)) return;
      }
    }
    if (options.once && MillisecondsUntil(once_deadline) == 0) {
      printer.NoDevice();
      return;
    }
  }
}

// After Stop: take the reports of a poll that was under way, until the poll thread has had time
// to end. A second Ctrl-C leaves at once.
void DrainAfterStop(ShutdownSignals& signals, ReportPrinter& printer, const SessionSettings& settings) {
  const Clock::time_point stopped = Clock::now();
  const Clock::time_point cap = stopped + std::chrono::milliseconds(settings.drain_cap_ms);
  Clock::time_point deadline = stopped + std::chrono::milliseconds(settings.drain_ms);
  bool printing = !settings.options.once;
  while (MillisecondsUntil(deadline) > 0) {
    const Wakeup wakeup = WaitForEvents(signals, MillisecondsUntil(deadline));
    if (wakeup.signal) return;
    if (!wakeup.reports) continue;
    for (const std::string& report : SessionQueue().TakeAll()) {
      if (printing) printing = printer.Show(report);
    }
    deadline = std::min(cap, Clock::now() + std::chrono::milliseconds(settings.drain_ms));
  }
}

}  // namespace

std::string PrepareFolders(const MonitorOptions& options) {
  std::string error = CheckFolder(options.config_dir, "configuration folder", false);
  if (error.empty() && ::access((options.config_dir + "/AndroidVID.ini").c_str(), R_OK) != 0) {
    error = "configuration folder \"" + options.config_dir + "\" holds no readable AndroidVID.ini";
  }
  if (error.empty()) {
    error = CheckFolder(options.resource_dir, "resource folder", !options.resource_dir_given);
  }
  if (error.empty()) error = CheckFolder(options.log_dir, "log folder", true);
  if (error.empty() && ::access(options.log_dir.c_str(), W_OK | X_OK) != 0) {
    error = "log folder \"" + options.log_dir + "\" cannot be written";
  }
  return error;
}

std::string DescribeCode(int code) {
  for (const pelmora_codes::CodeText& known : pelmora_codes::kCodes) {
    if (known.code == code) return std::to_string(code) + " (" + known.name + "): " + known.meaning;
  }
  return std::to_string(code) + ": an unknown code";
}

bool VendorListNamesAVendor(const std::string& config_dir) {
  std::string text;
  if (ReadTotalFile((config_dir + "/" + AndroidVID).c_str(), &text) != 0) return false;
  std::string key, number;
  for (const std::string& line : split(text, "[\r\n]+")) {
    if (MatchKeyNumberLine(line, &key, &number)) return true;
  }
  return false;
}

int RunMonitor(const PelmoraApi& api, const SessionSettings& settings) {
  const MonitorOptions& options = settings.options;
  const std::string folder_error = PrepareFolders(options);
  if (!folder_error.empty()) {
    settings.err("pelmora-monitor: " + folder_error + "\n");
    return kExitBadFolder;
  }
  if (!VendorListNamesAVendor(options.config_dir)) {
    settings.err("pelmora-monitor: warning: \"" + AndroidVID + "\" in \"" + options.config_dir +
                 "\" gives no vendor, so no USB device counts as a phone\n");
  }

  ShutdownSignals signals;
  if (!signals.ok()) {
    settings.err("pelmora-monitor: cannot watch for SIGINT and SIGTERM\n");
    return kExitListenFailed;
  }
  if (!SessionQueue().ok()) {
    settings.err("pelmora-monitor: cannot create a pipe\n");
    return kExitListenFailed;
  }

  const int init = api.init(options.config_dir.c_str(), options.resource_dir.c_str(),
                            options.log_dir.c_str());
  if (init != 0) {
    settings.err("pelmora-monitor: InitPelmora failed with code " + DescribeCode(init) + "\n");
    return kExitInitFailed;
  }
  const int adb = api.start_adb_server(false);
  if (adb != 0) {
    settings.err("pelmora-monitor: StartAdbServer failed with code " + DescribeCode(adb) + " (see " +
                 options.log_dir + "/Pelmora.log)\n");
    return kExitAdbFailed;
  }
  if (signals.Drain() > 0) return kExitOk;  // Ctrl-C while the server was starting

  SessionQueue().TakeAll();  // nothing of an earlier session
  const int listen = api.start_listen(&OnReport);
  if (listen != 0) {
    settings.err("pelmora-monitor: StartListenAndroidDevice failed with code " + DescribeCode(listen) + "\n");
    return kExitListenFailed;
  }

  ReportPrinter printer(settings);
  if (!options.json && !options.once) printer.ShowTable();
  Listen(signals, printer, options);
  api.stop_listen();
  DrainAfterStop(signals, printer, settings);
  return kExitOk;
}

}  // namespace monitor
