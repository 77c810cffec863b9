// A long run of the listener as it runs in the library: the real USB watcher on the Linux source
// against a phone simulated by umockdev, the real libTarnwell against the simulated ADB server,
// and a poll pause of a few milliseconds. Each cycle plugs the phone in, lets ADB see it in one of
// three states, takes it off ADB and unplugs it: four changes, each awaited before the next.
//
// It fails (exit code 1) unless every change is reported exactly once, in order, with nothing
// else in between or after, and unless resident memory after the warm-up (a tenth of the cycles)
// grows by at most 1 MiB (not judged under a sanitizer). It prints the cycles, the duration and the growth.
//
// Usage: pelmora_soak [cycles]   (default 10000; the program re-runs itself under umockdev)
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>

#include <json/json.h>

#include "AndListenerEx.h"
#include "../common/ResidentMemory.h"
#include "ListenDeviceChangeMac.h"
#include "Quenwick.h"
#include "SimAdbServer.h"
#include "UsbTestLists.h"
#include "UsbTestbed.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPollPause = 2ms;
constexpr auto kReportWait = 10s;  // a lost change fails the run instead of hanging it
constexpr long kAllowedGrowthKiB = 1024;
// A sanitizer's own bookkeeping grows with the work done: memory is only judged without one.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kJudgeMemory = false;
#else
constexpr bool kJudgeMemory = true;
#endif
constexpr const char* kKey = "soakphone01";

std::mutex s_mutex;
std::condition_variable s_arrived;
std::deque<std::string> s_reports;

int OnReport(const char* report, int length) {
  std::lock_guard<std::mutex> lock(s_mutex);
  s_reports.emplace_back(report, static_cast<size_t>(length));
  s_arrived.notify_one();
  return 0;
}

// The next report's changes as "key:old->new" joined by " ", or why there is none.
std::string NextReport(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(s_mutex);
  if (!s_arrived.wait_for(lock, wait, [] { return !s_reports.empty(); })) return "no report";
  const std::string report = s_reports.front();
  s_reports.pop_front();
  lock.unlock();
  Json::Value root;
  std::string error;
  std::istringstream in(report);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &error)) return "not JSON: " + report;
  std::string changes;
  for (const Json::Value& entry : root["changed"]) {
    changes += (changes.empty() ? "" : " ") + entry["key_serial"].asString() + ":" +
               entry["old_status"].asString() + "->" + entry["new_status"].asString();
  }
  return changes;
}

SimulatedUsbDevice SoakPhone() {
  SimulatedUsbDevice device;
  device.number = 7;
  device.serial = "SoakPhone01";
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  device.sysfs_manufacturer = "Acme";
  device.sysfs_product = "Soak Phone";
  return device;
}

struct AdbState {
  const char* adb_state;
  const char* status;
};
// Not "offline": a phone that arrives offline is held back while adb finishes its handshake.
constexpr AdbState kAdbStates[] = {
    {"unauthorized", "UnauthoredConnect"}, {"recovery", "AdbConnect"}, {"device", "AuthoredConnect"}};

int Soak(int cycles) {
  sim_adb::SimAdbServer server;
  ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server.port()).c_str(), 1);
  UsbTestbed testbed;
  const std::string syspath = testbed.Plug(SoakPhone());
  testbed.SendUevent(syspath, "remove");  // each cycle starts with the phone out

  ListenDeviceChange* watcher = GetListenDeviceChangeMacInstance();
  // The watcher thread reads the testbed: it ends after the listener and before the testbed.
  struct StopWatcherAtEnd {
    ListenDeviceChange* watcher;
    ~StopWatcherAtEnd() { watcher->StopListen(); }
  } stop_watcher_at_end{watcher};
  AndListenerEx listener(OnReport, {watcher, kPollPause});
  if (listener.StartListen() != 0) {
    std::fprintf(stderr, "soak: the listener did not start\n");
    return 1;
  }
  static_cast<ListenDeviceChangeMac*>(watcher)->WaitUntilListening(5s);

  const int warm_up = cycles / 10;
  long rss_after_warm_up = ResidentKiB();
  const auto start = Clock::now();
  for (int cycle = 0; cycle < cycles; ++cycle) {
    const AdbState& adb = kAdbStates[cycle % 3];
    const std::string key = std::string(kKey) + ":";
    const struct {
      std::function<void()> act;
      std::string expected;
    } steps[] = {
        {[&] { testbed.SendUevent(syspath, "add"); }, key + "NotConnect->MtpConnect"},
        {[&] {
           server.SetDevices({{"SOAKPHONE01", adb.adb_state,
                               {{"ro.build.version.release", "14"},
                                {"ro.product.manufacturer", "Acme"},
                                {"ro.product.model", "Soak Phone"}}}});
         },
         key + "MtpConnect->" + adb.status},
        {[&] { server.SetDevices({}); }, key + adb.status + "->MtpConnect"},
        {[&] { testbed.SendUevent(syspath, "remove"); }, key + "MtpConnect->NotConnect"},
    };
    for (const auto& step : steps) {
      step.act();
      const std::string got = NextReport(kReportWait);
      if (got != step.expected) {
        std::fprintf(stderr, "soak: cycle %d: expected \"%s\", got \"%s\"\n", cycle,
                     step.expected.c_str(), got.c_str());
        return 1;
      }
    }
    if (cycle + 1 == warm_up) rss_after_warm_up = ResidentKiB();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const std::string extra = NextReport(100 * kPollPause);
  listener.StopListen();
  const long growth = ResidentKiB() - rss_after_warm_up;
  std::printf("soak: %d cycles (%d reports) in %.1f s; resident memory %ld KiB after %d warm-up "
              "cycles, growth %ld KiB\n",
              cycles, 4 * cycles, seconds, rss_after_warm_up, warm_up, growth);
  if (extra != "no report") {
    std::fprintf(stderr, "soak: a report after the last change: \"%s\"\n", extra.c_str());
    return 1;
  }
  if (kJudgeMemory && growth > kAllowedGrowthKiB) {
    std::fprintf(stderr, "soak: resident memory grew by %ld KiB (at most %ld)\n", growth, kAllowedGrowthKiB);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // umockdev must be preloaded before the process starts: run again with it when it is not.
  if (!UmockdevPreloaded()) {
    ::setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
    ::execv("/proc/self/exe", argv);
    std::perror("soak: re-running under umockdev");
    return 1;
  }
  const int cycles = argc > 1 ? std::atoi(argv[1]) : 10000;
  if (cycles <= 0) {
    std::fprintf(stderr, "usage: %s [cycles > 0]\n", argv[0]);
    return 2;
  }
  LoadUsbTestFilterLists();
  const auto log_dir = std::filesystem::temp_directory_path() / ("pelmora-soak-" + std::to_string(::getpid()));
  std::filesystem::create_directories(log_dir);
  InitLogEx(log_dir.c_str(), "Pelmora", (log_dir / "Pelmora.log").c_str());
  const int result = Soak(cycles);
  std::filesystem::remove_all(log_dir);
  return result;
}
