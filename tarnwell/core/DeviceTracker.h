// Follows the ADB server's device list on a thread of its own and tells a listener when it
// changes, so that a client learns of a phone within milliseconds instead of at its next poll.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "PosixCompat.h"

namespace tarnwell {

class DeviceTracker {
 public:
  enum class Event { kChanged, kEnded };
  // kChanged: the list differs from the one before (the first list counts as a change).
  // kEnded: the stream could not be opened or has ended (code and why say how); nothing follows.
  using Listener = std::function<void(Event event, int code, const std::string& why)>;

  // Starts following the server on port; the connection is made on the new thread, so this never
  // waits on the server. TARNWELL_OK with *tracker set, or TARNWELL_ERR_IO when no thread or
  // wake-up pipe can be had.
  static int Start(std::uint16_t port, Listener listener, std::unique_ptr<DeviceTracker>* tracker,
                   std::string* why);
  // Ends the thread at once, whatever it waits for, and joins it: no event comes after this.
  ~DeviceTracker();
  DeviceTracker(const DeviceTracker&) = delete;
  DeviceTracker& operator=(const DeviceTracker&) = delete;

  bool OnOwnThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  DeviceTracker(std::uint16_t port, Listener listener) : port_(port), listener_(std::move(listener)) {}
  void Run();

  const std::uint16_t port_;
  const Listener listener_;
  posix::Pipe wake_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace tarnwell
