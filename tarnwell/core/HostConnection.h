// One TCP connection to the ADB server on 127.0.0.1, every operation bounded by a deadline.
// Results are the library's codes (Tarnwell.h): TARNWELL_OK, _NO_SERVER, _TIMEOUT, _CLOSED, _IO.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Deadline.h"
#include "UniqueFd.h"

namespace tarnwell {

class HostConnection {
 public:
  HostConnection() = default;
  HostConnection(const HostConnection&) = delete;
  HostConnection& operator=(const HostConnection&) = delete;
  HostConnection(HostConnection&&) = default;
  HostConnection& operator=(HostConnection&&) = default;

  // Every later wait also ends, with TARNWELL_ERR_IO and "stopped", as soon as wake_fd becomes
  // readable: a reader that may wait long (a tracking stream) can be stopped at once.
  void SetWakeFd(int wake_fd) { wake_fd_ = wake_fd; }
  // Waits without a time bound until input (or the end of the stream) is there to read.
  int AwaitInput(std::string* why);

  int Connect(std::uint16_t port, const Deadline& deadline, std::string* why);
  int SendAll(std::string_view bytes, const Deadline& deadline, std::string* why);
  // Exactly n bytes, or _CLOSED when the peer ends the stream first.
  int ReadExact(std::size_t n, std::string* out, const Deadline& deadline, std::string* why);
  // Everything up to end of stream; bytes past `keep` are read and dropped so the peer can finish.
  int ReadToEnd(std::size_t keep, std::string* out, const Deadline& deadline, std::string* why);

 private:
  // Waits for `events` on the socket; TARNWELL_OK when ready.
  int WaitFor(short events, const Deadline& deadline, std::string* why);
  // One read into buf; sets *got (0 at end of stream).
  int ReadSome(char* buf, std::size_t cap, std::size_t* got, const Deadline& deadline,
               std::string* why);

  // poll() on the socket and the wake descriptor, until the deadline (none: without bound).
  int PollSocket(short events, const Deadline* deadline, std::string* why);

  posix::UniqueFd fd_;
  int wake_fd_ = -1;
};

}  // namespace tarnwell
