// A real adb server of one's own: a free loopback port, a temporary HOME (adb needs a writable
// $HOME/.android), every adb command bounded in time, and on destruction `kill-server`, then
// SIGKILL to whatever server process still serves the port, then the HOME removed. When the
// process dies without its destructor (killed at a test's timeout, say), a watchdog that outlives
// it runs `kill-server` and removes the HOME: adb's server is a daemon and would stay behind.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "Subprocess.h"
#include "UniqueFd.h"

namespace sim_phone {

class PrivateAdbServer {
 public:
  // Picks the port and HOME and starts the watchdog of whatever server will serve that port (this
  // process's `adb start-server`, or a library asked to start one); starts no server. The server
  // looks for emulators (device daemons on 127.0.0.1:5555, 5557, ... when it starts) only when
  // asked to: a test's server would otherwise attach the emulator ports of whatever else runs on
  // the machine.
  explicit PrivateAdbServer(bool scan_emulator_ports = false);
  ~PrivateAdbServer();
  PrivateAdbServer(const PrivateAdbServer&) = delete;
  PrivateAdbServer& operator=(const PrivateAdbServer&) = delete;

  // Debian's adb on PATH, empty when there is none.
  static std::string FindAdb();
  // A port nothing listens on now, picked by the system (never 5037 or 5555-5585).
  static std::uint16_t FreePort();

  std::uint16_t port() const { return port_; }
  const std::string& home() const { return home_; }
  // "HOME=...", "ANDROID_ADB_SERVER_PORT=..." and "ADB_EMU=0" (1 when scanning) for children.
  std::vector<std::string> Environment() const;
  // Sets them in this process, for code that reads them (libTarnwell, adb run from here).
  void ApplyToThisProcess() const;

  // `adb start-server` on the port; false (with adb's words in *why) when no server came up.
  bool Start(std::string* why = nullptr);
  // Any adb command against this server, bounded.
  tarnwell::ProcessOutcome Adb(const std::vector<std::string>& args, int timeout_ms = 5000) const;
  // `adb connect 127.0.0.1:<port>`; adb exits 0 even when it fails, so its words decide.
  bool Connect(std::uint16_t phone_port, std::string* output = nullptr) const;
  void Disconnect(std::uint16_t phone_port) const;
  // `adb kill-server`, then SIGKILL to any server process left on the port; waits for them.
  void KillServer();
  // Server processes serving this port ("adb -L tcp:<port> fork-server ...").
  std::vector<pid_t> ServerProcesses() const;

 private:
  std::uint16_t port_ = 0;
  std::string home_;
  std::string adb_;
  bool scan_emulator_ports_ = false;
  posix::UniqueFd watchdog_;  // the watchdog acts once this end is closed, by us or by our death
};

}  // namespace sim_phone
