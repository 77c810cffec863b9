#include "AdbLauncher.h"

#include <thread>

#include "AdbClient.h"
#include "Subprocess.h"
#include "Tarnwell.h"

namespace tarnwell {

namespace {

constexpr int kVersionRetryMs = 20;

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace

std::string LocateAdb(const std::string& resource_dir) {
  if (!resource_dir.empty()) {
    std::string bundled = FindOnPath(resource_dir + "/adb");
    if (!bundled.empty()) return bundled;
  }
  return FindOnPath("adb");
}

int WaitForServer(std::uint16_t port, const Deadline& deadline, std::string* why) {
  for (;;) {
    int version = 0;
    std::string reason;
    int result = QueryServerVersion(port, &version, &reason);
    if (result == TARNWELL_OK) return TARNWELL_OK;
    if (deadline.Expired()) {
      *why = "the server on port " + std::to_string(port) + " does not answer: " + reason;
      return TARNWELL_ERR_TIMEOUT;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(
        deadline.RemainingMs() < kVersionRetryMs ? deadline.RemainingMs() : kVersionRetryMs));
  }
}

int StartServer(const std::string& adb, std::uint16_t port, const Deadline& deadline,
                std::string* why) {
  std::string port_text = std::to_string(port);
  ProcessOutcome run = RunProcess({adb, "-P", port_text, "start-server"},
                                  {"ANDROID_ADB_SERVER_PORT=" + port_text}, deadline);
  if (!run.started) {
    *why = run.error;
    return TARNWELL_ERR_START_FAILED;
  }
  if (run.timed_out) {
    *why = adb + " start-server did not finish in time: " + OneLine(run.output);
    return TARNWELL_ERR_TIMEOUT;
  }
  if (run.exit_code != 0) {
    *why = adb + " start-server exited with " + std::to_string(run.exit_code) + ": " +
           OneLine(run.output);
    return TARNWELL_ERR_START_FAILED;
  }
  int result = WaitForServer(port, deadline, why);
  if (result != TARNWELL_OK) *why += " (adb said: " + OneLine(run.output) + ")";
  return result == TARNWELL_OK ? TARNWELL_OK : TARNWELL_ERR_START_FAILED;
}

}  // namespace tarnwell
