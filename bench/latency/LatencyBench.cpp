// How long the host waits for news: each event comes at a random moment against the once-a-second
// poll, and the time to the host callback's entry is taken.
//
// BM_UeventToReport: a phone (no adb interface) plugged under umockdev, from its "add" uevent to
// the callback's MtpConnect entry; and from "remove" to NotConnect. The real USB watcher, the
// real libTarnwell against the simulated ADB server.
//
// BM_AdbListToReport: Debian's adb on a private port with a simulated phone: from the frame of the
// server's own track-devices stream that first lists the phone as "device" to the callback's
// AuthoredConnect entry with the phone's model; and from the start of `adb disconnect` to the
// NotConnect entry. Also the phone's own answer time: its three property reads one after another.
//
// Each is a median, a 99th percentile and a maximum in milliseconds (counters), over kEvents
// events. The program re-runs itself under umockdev's preload library.
#include <benchmark/benchmark.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AdbClient.h"
#include "AndListenerEx.h"
#include "ListenDeviceChangeMac.h"
#include "PosixCompat.h"
#include "PrivateAdbServer.h"
#include "Quenwick.h"
#include "SimAdbServer.h"
#include "SimPhone.h"
#include "Tarnwell.h"
#include "UsbTestLists.h"
#include "UsbTestbed.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kEvents = 40;
constexpr auto kEntryWait = 10s;
std::mt19937 s_phases(18);  // fixed seed: the same phases on every run

// Every entry the host was given, with the time its callback began.
struct Entry {
  Clock::time_point at;
  std::string key, new_status, model;
};
std::mutex s_mutex;
std::condition_variable s_arrived;
std::vector<Entry> s_entries;

int OnReport(const char* report, int length) {
  const Clock::time_point at = Clock::now();
  Json::Value root;
  std::string error;
  std::istringstream in(std::string(report, static_cast<size_t>(length)));
  Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &error);
  std::lock_guard<std::mutex> lock(s_mutex);
  for (const Json::Value& e : root["changed"]) {
    s_entries.push_back({at, e["key_serial"].asString(), e["new_status"].asString(), e["model"].asString()});
  }
  s_arrived.notify_all();
  return 0;
}

size_t EntriesSoFar() {
  std::lock_guard<std::mutex> lock(s_mutex);
  return s_entries.size();
}

// When the first entry after `from` moved key to status (with this model, unless empty) came.
std::optional<Clock::time_point> EntryTime(size_t from, const std::string& key, const std::string& status,
                                           const std::string& model = "") {
  std::unique_lock<std::mutex> lock(s_mutex);
  std::optional<Clock::time_point> found;
  s_arrived.wait_for(lock, kEntryWait, [&] {
    for (size_t i = from; i < s_entries.size() && !found; ++i) {
      const Entry& e = s_entries[i];
      if (e.key == key && e.new_status == status && (model.empty() || e.model == model)) found = e.at;
    }
    return found.has_value();
  });
  return found;
}

void RandomPhase() { std::this_thread::sleep_for(std::chrono::milliseconds(s_phases() % 1000)); }

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Median, 99th percentile and maximum of the samples as counters named after what they measure.
void Count(benchmark::State& state, const std::string& name, std::vector<double> samples) {
  if (samples.empty()) {
    state.SkipWithError((name + ": no sample").c_str());
    return;
  }
  std::sort(samples.begin(), samples.end());
  state.counters[name + "_median_ms"] = samples[samples.size() / 2];
  state.counters[name + "_p99_ms"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
  state.counters[name + "_max_ms"] = samples.back();
}

void BM_UeventToReport(benchmark::State& state) {
  sim_adb::SimAdbServer server;
  ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server.port()).c_str(), 1);
  UsbTestbed testbed;
  SimulatedUsbDevice phone;
  phone.number = 11;
  phone.serial = "latency-usb";
  phone.vid = kAndroidVid;
  phone.pid = kPlainPid;
  phone.sysfs_manufacturer = "Acme";
  phone.sysfs_product = "Latency Phone";
  const std::string syspath = testbed.Plug(phone);
  testbed.SendUevent(syspath, "remove");
  auto* watcher = static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
  std::vector<double> arrivals, departures;
  {
    AndListenerEx listener(OnReport, {watcher});
    listener.StartListen();
    watcher->WaitUntilListening(5s);
    for (auto _ : state) {
      for (int i = 0; i < kEvents; ++i) {
        for (auto [action, status, samples] : {std::tuple{"add", "MtpConnect", &arrivals},
                                               std::tuple{"remove", "NotConnect", &departures}}) {
          RandomPhase();
          const size_t from = EntriesSoFar();
          const Clock::time_point sent = Clock::now();
          testbed.SendUevent(syspath, action);
          if (const auto at = EntryTime(from, "latency-usb", status)) samples->push_back(Ms(*at - sent));
        }
      }
    }
    listener.StopListen();
  }
  watcher->StopListen();  // it reads the testbed, which goes next
  Count(state, "uevent_to_mtp", arrivals);
  Count(state, "remove_to_notconnect", departures);
}
BENCHMARK(BM_UeventToReport)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// A USB view with nothing on it: the phones of this benchmark come over the network.
class NoUsb : public ListenDeviceChange {
 public:
  int StartListen() override { return 0; }
  void StopListen() override {}
};

// The times at which the server's own track-devices stream listed `serial` as "device" after
// being without it, taken on a connection of this benchmark's own.
class ServerListWatch {
 public:
  ServerListWatch(std::uint16_t port, std::string serial) : serial_(std::move(serial)) {
    posix::OpenPipe(&wake_, posix::Blocking::kNo);
    thread_ = std::thread([this, port] {
      tarnwell::HostConnection connection;
      std::string service, why, frame;
      if (tarnwell::OpenDeviceTracking(port, wake_.read.get(), &connection, &service, &why) != TARNWELL_OK) return;
      bool listed = false;
      while (tarnwell::ReadTrackingFrame(connection, &frame, &why) == TARNWELL_OK) {
        const Clock::time_point at = Clock::now();
        const bool now_listed = ListsAsDevice(frame);
        std::lock_guard<std::mutex> lock(mutex_);
        if (now_listed && !listed) listed_at_.push_back(at);
        listed = now_listed;
        changed_.notify_all();
      }
    });
  }
  ~ServerListWatch() {
    const char byte = 0;
    (void)::write(wake_.write.get(), &byte, 1);
    thread_.join();
  }
  // The time of the n-th listing (0-based), once it has come.
  std::optional<Clock::time_point> Listing(size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kEntryWait, [&] { return listed_at_.size() > n; })) return std::nullopt;
    return listed_at_[n];
  }

 private:
  // A line "<serial><blanks or tab>device ..." (the long form pads the serial with blanks).
  bool ListsAsDevice(const std::string& frame) const {
    std::istringstream lines(frame);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string serial, state;
      if (words >> serial >> state && serial == serial_ && state == "device") return true;
    }
    return false;
  }

  const std::string serial_;
  posix::Pipe wake_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Clock::time_point> listed_at_;
  std::thread thread_;
};

void BM_AdbListToReport(benchmark::State& state) {
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  std::string why;
  if (!server.Start(&why)) {
    state.SkipWithError(("no adb server: " + why).c_str());
    return;
  }
  sim_phone::PhoneConfig config;
  config.model = "Latency Phone";
  sim_phone::SimPhone phone(config);
  const std::string serial = phone.serial();
  ServerListWatch watch(server.port(), serial);
  NoUsb no_usb;
  std::vector<double> authorised, departures, answers;
  {
    AndListenerEx listener(OnReport, {&no_usb});
    listener.StartListen();
    for (auto _ : state) {
      for (size_t i = 0; i < kEvents; ++i) {
        RandomPhase();
        size_t from = EntriesSoFar();
        server.Connect(phone.port());
        const auto listed = watch.Listing(i);
        const auto reported = EntryTime(from, serial, "AuthoredConnect", config.model);
        if (listed && reported) authorised.push_back(Ms(*reported - *listed));

        RandomPhase();
        from = EntriesSoFar();
        const Clock::time_point sent = Clock::now();
        server.Disconnect(phone.port());
        if (const auto at = EntryTime(from, serial, "NotConnect")) departures.push_back(Ms(*at - sent));
      }
    }
    listener.StopListen();
  }
  // The phone's own answer time: version, manufacturer and model read one after another.
  server.Connect(phone.port());
  watch.Listing(kEvents);
  char buffer[100];
  for (int i = 0; i < kEvents; ++i) {
    const Clock::time_point start = Clock::now();
    for (auto read : {AdbGetPhoneSoftVersion, AdbGetPhoneManufacturer, AdbGetPhoneProductModel}) {
      read(serial.c_str(), buffer, sizeof buffer, 0);
    }
    answers.push_back(Ms(Clock::now() - start));
  }
  Count(state, "listed_to_authorised", authorised);
  Count(state, "disconnect_to_notconnect", departures);
  Count(state, "phone_details_answer", answers);
}
BENCHMARK(BM_AdbListToReport)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // umockdev must be preloaded before the process starts: run again with it when it is not.
  if (!UmockdevPreloaded()) {
    ::setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
    ::execv("/proc/self/exe", argv);
    return 1;
  }
  // The adb processes started from here must see the machine's /sys, not the testbed's.
  ::unsetenv("LD_PRELOAD");
  LoadUsbTestFilterLists();
  const auto log_dir = std::filesystem::temp_directory_path() / ("pelmora-latency-" + std::to_string(::getpid()));
  std::filesystem::create_directories(log_dir);
  InitLogEx(log_dir.c_str(), "Pelmora", (log_dir / "Pelmora.log").c_str());
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(log_dir);
  return 0;
}
