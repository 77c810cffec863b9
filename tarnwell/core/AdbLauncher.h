// Which adb executable to run, and starting the ADB server with it.
#pragma once

#include <cstdint>
#include <string>

#include "Deadline.h"

namespace tarnwell {

// "adb" in resource_dir when it is an executable file there, else "adb" on PATH; empty when
// neither exists.
std::string LocateAdb(const std::string& resource_dir);

// Runs `<adb> -P <port> start-server` (with ANDROID_ADB_SERVER_PORT set to the same port) and
// then asks "host:version" until the server answers or the deadline passes.
// Returns TARNWELL_OK, TARNWELL_ERR_START_FAILED or TARNWELL_ERR_TIMEOUT; `why` says what adb said.
int StartServer(const std::string& adb, std::uint16_t port, const Deadline& deadline,
                std::string* why);

// Asks "host:version" until the server answers or the deadline passes.
int WaitForServer(std::uint16_t port, const Deadline& deadline, std::string* why);

}  // namespace tarnwell
