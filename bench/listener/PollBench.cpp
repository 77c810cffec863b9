// One poll's own work (merge, change detection, detail refresh with complete details, report) at
// 1, 32 and 256 devices, with the ADB list query taken out: the views are handed in ready. Then
// whole polls, list query included, through libTarnwell and a simulated ADB server, for the
// devices that cost a poll the most: a phone that never answers its shell, and one that adb has
// no permission to open. Those report the log bytes a poll writes beside its time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "AndListenerEx.h"
#include "Quenwick.h"
#include "SimAdbServer.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Views {
  std::map<std::string, DeviceModleInfo> usb;
  std::map<std::string, DeviceAuthorInfo_> adb;
};

// The phones both as views and as the simulated server lists them (for the first poll's reads).
Views AuthorisedPhones(int count, sim_adb::SimAdbServer& server) {
  Views views;
  std::vector<sim_adb::Device> listed;
  for (int i = 0; i < count; ++i) {
    const std::string serial = "SERIAL" + std::to_string(100000 + i);
    std::string key = serial;
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    DeviceModleInfo usb;
    usb.serial = serial;
    usb.vid = 6353;
    usb.pid = static_cast<uint16_t>(20000 + i);
    usb.manufacturer = "Google";
    usb.product = "Pixel 8";
    views.usb[key] = usb;
    views.adb[key] = DeviceAuthorInfo_{DeviceAuthored, serial};
    listed.push_back({serial, "device",
                      {{"ro.build.version.release", "14"},
                       {"ro.product.manufacturer", "Google"},
                       {"ro.product.model", "Pixel 8"}}});
  }
  server.SetDevices(listed);
  return views;
}

// The log the polls write to, removed when the program ends.
struct TemporaryLogFolder {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("pelmora-bench-" + std::to_string(::getpid()));
  ~TemporaryLogFolder() { std::filesystem::remove_all(path); }
};

const std::filesystem::path& LogFile() {
  static const TemporaryLogFolder folder;
  static const std::filesystem::path file = [] {
    const std::filesystem::path path = folder.path / "Pelmora.log";
    InitLogEx("", "Pelmora", path.c_str());
    return path;
  }();
  return file;
}

double LogBytes() {
  std::error_code error;
  const auto size = std::filesystem::file_size(LogFile(), error);
  return error ? 0.0 : static_cast<double>(size);
}

// A simulated ADB server that libTarnwell in this process asks.
sim_adb::SimAdbServer& Server() {
  static sim_adb::SimAdbServer server;
  ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server.port()).c_str(), 1);
  return server;
}

int IgnoreReport(const char*, int) { return 0; }

// Nothing changes: the steady state of a poll once the details are complete.
void BM_PollUnchanged(benchmark::State& state) {
  LogFile();
  const Views views = AuthorisedPhones(static_cast<int>(state.range(0)), Server());
  AndListenerEx listener(IgnoreReport, {nullptr, std::chrono::milliseconds(0)});
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_code = 0;
  listener.DealListenInfo(&views.usb, &views.adb, &previous, 0, &last_code);
  for (auto _ : state) listener.DealListenInfo(&views.usb, &views.adb, &previous, 0, &last_code);
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_PollUnchanged)->Arg(1)->Arg(32)->Arg(256)->Complexity();

// Every device arrives anew: the report names all of them.
void BM_PollAllReported(benchmark::State& state) {
  LogFile();
  const Views views = AuthorisedPhones(static_cast<int>(state.range(0)), Server());
  AndListenerEx listener(IgnoreReport, {nullptr, std::chrono::milliseconds(0)});
  int last_code = 0;
  std::map<std::string, DeviceBasicInfo_> warm;
  listener.DealListenInfo(&views.usb, &views.adb, &warm, 0, &last_code);
  for (auto _ : state) {
    std::map<std::string, DeviceBasicInfo_> previous;
    listener.DealListenInfo(&views.usb, &views.adb, &previous, 0, &last_code);
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_PollAllReported)->Arg(1)->Arg(32)->Arg(256)->Complexity();

// Whole polls, as the poll thread makes them, with one device listed; the first poll (which meets
// the device) is left out. Counters: the slowest poll, and the log bytes a poll writes.
void MeasureWholePolls(benchmark::State& state, const sim_adb::Device& device) {
  LogFile();
  sim_adb::SimAdbServer& server = Server();
  server.SetDevices({device});
  AndListenerEx listener(IgnoreReport, {nullptr, std::chrono::milliseconds(0)});
  const std::map<std::string, DeviceModleInfo> usb;
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_code = 0;
  const auto poll = [&] {
    std::map<std::string, DeviceAuthorInfo_> adb;
    const int code = GetDevicesAuthorStatusEx(adb);
    listener.DealListenInfo(&usb, code == 0 ? &adb : nullptr, &previous, code, &last_code);
  };
  poll();
  const double log_before = LogBytes();
  Clock::duration slowest{};
  for (auto _ : state) {
    const auto start = Clock::now();
    poll();
    slowest = std::max(slowest, Clock::now() - start);
  }
  state.counters["slowest_poll_ms"] = std::chrono::duration<double, std::milli>(slowest).count();
  state.counters["log_bytes_per_poll"] =
      (LogBytes() - log_before) / static_cast<double>(state.iterations());
}

// A phone whose daemon accepts the shell and never answers: its reads wait out their bounds on a
// thread of their own, so that every poll costs only the list query and the merge.
void BM_PollWithHungPhone(benchmark::State& state) {
  Server().React("shell:", sim_adb::Reaction::Silent());
  MeasureWholePolls(state, {"HUNGPHONE01", "device", {}});
  Server().ClearReactions();
}
BENCHMARK(BM_PollWithHungPhone)->Iterations(200)->Unit(benchmark::kMillisecond)->UseRealTime();

// A phone adb may not open: no detail lookup at all, and its remedy logged once.
void BM_PollWithNoPermissionsDevice(benchmark::State& state) {
  MeasureWholePolls(state, {"NOPERM01",
                            "no permissions (user in plugdev group; are your udev rules wrong?); "
                            "see [http://developer.android.com/tools/device.html]",
                            {}});
}
BENCHMARK(BM_PollWithNoPermissionsDevice)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
