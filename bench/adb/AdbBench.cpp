// libTarnwell against a private real adb server with one simulated phone: the device list
// against running `adb devices` as a subprocess and against a bare socket round trip (the floor),
// and the three property reads of one phone. Prints the medians and ratios after the run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "PrivateAdbServer.h"
#include "SimPhone.h"
#include "Tarnwell.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

sim_phone::PrivateAdbServer* s_server = nullptr;
sim_phone::SimPhone* s_phone = nullptr;
std::mutex s_samples_mutex;
std::map<std::string, std::vector<double>> s_samples_us;  // per benchmark, one per iteration

// Runs op once per iteration and keeps each iteration's wall time for the medians.
template <typename Op>
void Measure(benchmark::State& state, const std::string& name, Op op) {
  std::vector<double> samples;
  for (auto _ : state) {
    auto start = Clock::now();
    if (!op()) {
      state.SkipWithError("operation failed");
      break;
    }
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::lock_guard<std::mutex> lock(s_samples_mutex);
  auto& all = s_samples_us[name];
  all.insert(all.end(), samples.begin(), samples.end());
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void BM_AdbGetDevicesEx(benchmark::State& state) {
  Measure(state, "AdbGetDevicesEx", [] {
    char* list = nullptr;
    int count = 0;
    bool ok = AdbGetDevicesEx(&list, &count, 0) == 0 && count == 1;
    AdbFreeResource(&list);
    return ok;
  });
}

// `adb devices` as a host application would run it: spawn, output to /dev/null, wait.
void BM_AdbDevicesSubprocess(benchmark::State& state) {
  std::string adb = sim_phone::PrivateAdbServer::FindAdb();
  std::string port = std::to_string(s_server->port());
  Measure(state, "adb devices (subprocess)", [&] {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    char* argv[] = {adb.data(), const_cast<char*>("-P"), port.data(),
                    const_cast<char*>("devices"), nullptr};
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, adb.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    return spawned == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
  });
}

// The floor: one blocking connect, "000chost:devices", read to the end. No parsing, no bounds.
void BM_RawHostDevicesRoundTrip(benchmark::State& state) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(s_server->port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Measure(state, "raw host:devices round trip", [&] {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              write(fd, "000chost:devices", 16) == 16;
    char reply[512];
    ssize_t got = 0;
    std::size_t total = 0;
    while (ok && (got = read(fd, reply, sizeof reply)) > 0) total += static_cast<std::size_t>(got);
    close(fd);
    return ok && total > 8;
  });
}

void BM_ThreePropertyReads(benchmark::State& state) {
  std::string serial = s_phone->serial();
  Measure(state, "three property reads", [&] {
    char buffer[100];
    return AdbGetPhoneSoftVersion(serial.c_str(), buffer, 100, 0) == 0 &&
           AdbGetPhoneManufacturer(serial.c_str(), buffer, 100, 0) == 0 &&
           AdbGetPhoneProductModel(serial.c_str(), buffer, 100, 0) == 0;
  });
}

BENCHMARK(BM_AdbGetDevicesEx)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AdbDevicesSubprocess)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawHostDevicesRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ThreePropertyReads)->UseRealTime()->Unit(benchmark::kMicrosecond);

bool PhoneListed() {
  for (int i = 0; i < 250; ++i) {
    char* list = nullptr;
    int count = 0;
    bool listed = AdbGetDevicesEx(&list, &count, 0) == 0 && list != nullptr &&
                  std::string(list).find(s_phone->serial() + "-device;") != std::string::npos;
    AdbFreeResource(&list);
    if (listed) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

void PrintSummary() {
  double ours = Median(s_samples_us["AdbGetDevicesEx"]);
  double subprocess = Median(s_samples_us["adb devices (subprocess)"]);
  double floor = Median(s_samples_us["raw host:devices round trip"]);
  double props = Median(s_samples_us["three property reads"]);
  std::printf("\nMedians (us): AdbGetDevicesEx %.1f | adb devices subprocess %.1f | raw round trip %.1f\n",
              ours, subprocess, floor);
  if (ours > 0 && floor > 0) {
    std::printf("AdbGetDevicesEx is %.1fx faster than the subprocess (goal >= 20x) and %.2fx the floor (goal <= 1.5x)\n",
                subprocess / ours, ours / floor);
  }
  std::printf("Three property reads for one phone: median total %.1f us\n", props);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (sim_phone::PrivateAdbServer::FindAdb().empty()) {
    std::fprintf(stderr, "adb is not installed\n");
    return 1;
  }
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  std::string why;
  if (!server.Start(&why)) {
    std::fprintf(stderr, "cannot start a private adb server: %s\n", why.c_str());
    return 1;
  }
  sim_phone::SimPhone phone{sim_phone::PhoneConfig{}};
  s_server = &server;
  s_phone = &phone;
  if (!server.Connect(phone.port()) || !PhoneListed()) {
    std::fprintf(stderr, "the simulated phone did not attach\n");
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  PrintSummary();
  server.Disconnect(phone.port());
  return 0;
}
