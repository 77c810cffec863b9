#include "PrivateAdbServer.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "Deadline.h"
#include "PosixCompat.h"

namespace sim_phone {

namespace {

constexpr int kStartTimeoutMs = 10000;
constexpr int kKillTimeoutMs = 3000;
// adb's switch for its look at the emulator ports when a server starts: "0" is off.
constexpr char kEmulatorScan[] = "ADB_EMU";
// The watchdog: a shell in a process group of its own that leaves its parent at once (so that
// nobody who kills this process, its children or its group reaches it, and nobody waits for it),
// waits for the end of its stdin (kept on fd 3: a background job's stdin is /dev/null), then
// stops the server, three times a second apart for one still starting, and removes the HOME.
// Arguments: adb, port, HOME.
constexpr char kWatchdogScript[] =
    "exec 3<&0; ( trap '' INT HUP TERM; cat <&3 >/dev/null; exec 3<&-;"
    " for try in 1 2 3; do \"$1\" -P \"$2\" kill-server; sleep 1; done; rm -rf \"$3\" ) </dev/null >/dev/null 2>&1 &";
constexpr int kWatchdogStartTimeoutMs = 5000;

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

struct ProcessEntry {
  pid_t pid;
  std::string command_line;  // arguments separated by spaces
};

#if defined(__linux__) && !defined(PELMORA_PORTABLE_POSIX)
std::vector<ProcessEntry> RunningProcesses() {
  std::vector<ProcessEntry> processes;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return processes;
  while (dirent* entry = ::readdir(proc)) {
    const std::string name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in("/proc/" + name + "/cmdline", std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (char& c : text) {
      if (c == '\0') c = ' ';
    }
    processes.push_back({static_cast<pid_t>(std::stoi(name)), text});
  }
  ::closedir(proc);
  return processes;
}
#else
// No /proc on macOS: ps reads the process table (-ww: command lines at full length).
std::vector<ProcessEntry> RunningProcesses() {
  std::vector<ProcessEntry> processes;
  const tarnwell::ProcessOutcome ps = tarnwell::RunProcess(
      {"ps", "-A", "-ww", "-o", "pid=", "-o", "command="}, {}, tarnwell::Deadline::AfterMs(kKillTimeoutMs));
  std::istringstream lines(ps.output);
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t start = line.find_first_not_of(' ');
    const std::size_t end = line.find(' ', start);
    if (start == std::string::npos || end == std::string::npos) continue;
    processes.push_back({static_cast<pid_t>(std::atoi(line.c_str() + start)), line.substr(end + 1)});
  }
  return processes;
}
#endif

}  // namespace

std::string PrivateAdbServer::FindAdb() { return tarnwell::FindOnPath("adb"); }

std::uint16_t PrivateAdbServer::FreePort() {
  const posix::UniqueFd fd = posix::Socket(AF_INET, SOCK_STREAM, posix::Blocking::kYes);
  if (!fd.ok()) throw std::runtime_error("socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot bind a loopback port");
  }
  return ntohs(address.sin_port);
}

PrivateAdbServer::PrivateAdbServer(bool scan_emulator_ports)
    : port_(FreePort()), adb_(FindAdb()), scan_emulator_ports_(scan_emulator_ports) {
  std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-adb-home-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  home_ = pattern;
  posix::Pipe ends;
  if (posix::OpenPipe(&ends, posix::Blocking::kYes)) {
    const tarnwell::ProcessOutcome shell = tarnwell::RunProcess(
        {"/bin/sh", "-c", kWatchdogScript, "pelmora-adb-watchdog", adb_.empty() ? "adb" : adb_,
         std::to_string(port_), home_},
        Environment(), tarnwell::Deadline::AfterMs(kWatchdogStartTimeoutMs), {ends.read.get(), true});
    if (shell.started) watchdog_ = std::move(ends.write);
  }
}

PrivateAdbServer::~PrivateAdbServer() {
  KillServer();
  watchdog_.reset();  // finds nothing left to stop
  std::error_code ignored;
  std::filesystem::remove_all(home_, ignored);
}

std::vector<std::string> PrivateAdbServer::Environment() const {
  return {"HOME=" + home_, "ANDROID_ADB_SERVER_PORT=" + std::to_string(port_),
          std::string(kEmulatorScan) + (scan_emulator_ports_ ? "=1" : "=0")};
}

void PrivateAdbServer::ApplyToThisProcess() const {
  ::setenv("HOME", home_.c_str(), 1);
  ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(port_).c_str(), 1);
  ::setenv(kEmulatorScan, scan_emulator_ports_ ? "1" : "0", 1);
}

tarnwell::ProcessOutcome PrivateAdbServer::Adb(const std::vector<std::string>& args,
                                               int timeout_ms) const {
  std::vector<std::string> argv = {adb_.empty() ? std::string("adb") : adb_, "-P",
                                   std::to_string(port_)};
  argv.insert(argv.end(), args.begin(), args.end());
  return tarnwell::RunProcess(argv, Environment(), tarnwell::Deadline::AfterMs(timeout_ms));
}

bool PrivateAdbServer::Start(std::string* why) {
  tarnwell::ProcessOutcome run = Adb({"start-server"}, kStartTimeoutMs);
  bool ok = run.started && !run.timed_out && run.exit_code == 0;
  if (!ok && why != nullptr) *why = run.error + run.output;
  return ok;
}

bool PrivateAdbServer::Connect(std::uint16_t phone_port, std::string* output) const {
  // adb waits up to 10 s for a daemon that never answers; allow it that and a little more.
  tarnwell::ProcessOutcome run = Adb({"connect", "127.0.0.1:" + std::to_string(phone_port)}, 15000);
  if (output != nullptr) *output = run.output;
  return run.exit_code == 0 && Contains(run.output, "connected to");
}

void PrivateAdbServer::Disconnect(std::uint16_t phone_port) const {
  Adb({"disconnect", "127.0.0.1:" + std::to_string(phone_port)});
}

std::vector<pid_t> PrivateAdbServer::ServerProcesses() const {
  std::vector<pid_t> pids;
  std::string marker = "tcp:" + std::to_string(port_) + " fork-server";
  for (const ProcessEntry& process : RunningProcesses()) {
    if (Contains(process.command_line, marker)) pids.push_back(process.pid);
  }
  return pids;
}

void PrivateAdbServer::KillServer() {
  if (ServerProcesses().empty()) return;
  Adb({"kill-server"}, kKillTimeoutMs);
  tarnwell::Deadline deadline = tarnwell::Deadline::AfterMs(kKillTimeoutMs);
  for (;;) {
    std::vector<pid_t> left = ServerProcesses();
    if (left.empty()) return;
    if (deadline.Expired()) {
      for (pid_t pid : left) ::kill(pid, SIGKILL);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace sim_phone
