// The cost of listening to an unchanging set of four authorised phones: CPU time of the whole
// process (the library's poll and USB watcher threads; the simulated ADB server runs in a child
// process) per minute, and the resident memory the library adds. PELMORA_IDLE_SECONDS sets the
// measured window (default 30 s).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "Pelmora.h"
#include "../common/ResidentMemory.h"
#include "SimAdbServer.h"

namespace fs = std::filesystem;

namespace {

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A child process serving four authorised phones; returns its pid and port.
pid_t StartServerChild(uint16_t* port) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(pipe_fds[0]);
    sim_adb::SimAdbServer server;
    std::vector<sim_adb::Device> phones;
    for (int i = 0; i < 4; ++i) {
      phones.push_back({"IDLEPHONE" + std::to_string(i), "device",
                        {{"ro.build.version.release", "14"},
                         {"ro.product.manufacturer", "Acme"},
                         {"ro.product.model", "Phone " + std::to_string(i)}}});
    }
    server.SetDevices(phones);
    const uint16_t p = server.port();
    if (write(pipe_fds[1], &p, sizeof p) != static_cast<ssize_t>(sizeof p)) _exit(1);
    pause();  // until the parent kills it
    _exit(0);
  }
  close(pipe_fds[1]);
  const bool got = read(pipe_fds[0], port, sizeof *port) == static_cast<ssize_t>(sizeof *port);
  close(pipe_fds[0]);
  return got ? child : -1;
}

int CountReports(const char*, int) { return 0; }

void BM_IdleListeningToFourPhones(benchmark::State& state) {
  const char* window_env = std::getenv("PELMORA_IDLE_SECONDS");
  const int window = window_env != nullptr ? std::atoi(window_env) : 30;
  uint16_t port = 0;
  const pid_t server = StartServerChild(&port);
  if (server < 0) {
    state.SkipWithError("cannot start the simulated ADB server");
    return;
  }
  setenv("ANDROID_ADB_SERVER_PORT", std::to_string(port).c_str(), 1);
  const fs::path root = fs::temp_directory_path() / ("pelmora-idle-" + std::to_string(getpid()));
  fs::create_directories(root / "config");
  std::ofstream(root / "config" / "AndroidVID.ini") << "Acme=4660\n";
  std::ofstream(root / "config" / "iManufactureAndiProduct.ini") << "";

  for (auto _ : state) {
    const long rss_before = ResidentKiB();
    InitPelmora((root / "config").c_str(), root.c_str(), (root / "logs").c_str());
    StartListenAndroidDevice(CountReports);
    std::this_thread::sleep_for(std::chrono::seconds(3));  // first report and details done
    const double cpu_start = CpuSeconds();
    const auto wall_start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(window));
    const double cpu = CpuSeconds() - cpu_start;
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    state.counters["cpu_ms_per_minute"] = cpu * 1000.0 * 60.0 / wall;
    state.counters["core_percent"] = 100.0 * cpu / wall;
    state.counters["rss_added_KiB"] = static_cast<double>(ResidentKiB() - rss_before);
    StopListenAndroidDevice();
  }
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  fs::remove_all(root);
}
BENCHMARK(BM_IdleListeningToFourPhones)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
