// One poll's own work (merge, change detection, detail refresh with complete details, report) at
// 1, 32 and 256 devices, with the ADB list query taken out: the views are handed in ready.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "Quenwick.h"

namespace {

struct Views {
  std::map<std::string, DeviceModleInfo> usb;
  std::map<std::string, DeviceAuthorInfo_> adb;
};

Views AuthorisedPhones(int count) {
  Views views;
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
  }
  return views;
}

// The log the polls write to, removed when the program ends.
struct TemporaryLogFolder {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("pelmora-bench-" + std::to_string(::getpid()));
  ~TemporaryLogFolder() { std::filesystem::remove_all(path); }
};

void SetUpOnce() {
  static const TemporaryLogFolder log_folder;
  static const bool ready = [] {
    InitLogEx("", "Pelmora", (log_folder.path / "Pelmora.log").c_str());
    fake_adb::Script script;
    script.property = [](const std::string&, const std::string&, std::string* value) {
      *value = "14";
      return 0;
    };
    fake_adb::SetScript(script);
    return true;
  }();
  (void)ready;
}

int IgnoreReport(const char*, int) { return 0; }

// Nothing changes: the steady state of a poll once the details are complete.
void BM_PollUnchanged(benchmark::State& state) {
  SetUpOnce();
  const Views views = AuthorisedPhones(static_cast<int>(state.range(0)));
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
  SetUpOnce();
  const Views views = AuthorisedPhones(static_cast<int>(state.range(0)));
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

}  // namespace
