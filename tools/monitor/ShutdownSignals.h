// SIGINT and SIGTERM read from a signalfd: they stay blocked in every thread of the session and
// the main thread polls for them. No handler runs, so no code runs in signal context and no signal
// waits on a handler that may never be called. (On macOS a kqueue EVFILT_SIGNAL does the same.)
#pragma once

#include <signal.h>

#include "UniqueFd.h"

namespace monitor {

class ShutdownSignals {
 public:
  // Blocks SIGINT and SIGTERM in the calling thread. Made before the library starts a thread, so
  // every thread it starts inherits the mask. Ignores SIGPIPE: a closed stdout is an error code,
  // not a death.
  ShutdownSignals();
  // Takes what is still pending, then puts the previous mask and SIGPIPE disposition back.
  ~ShutdownSignals();
  ShutdownSignals(const ShutdownSignals&) = delete;
  ShutdownSignals& operator=(const ShutdownSignals&) = delete;

  bool ok() const { return fd_.ok(); }
  // Readable while a signal is pending.
  int fd() const { return fd_.get(); }
  // Reads what is pending; returns how many signals arrived since the last call.
  int Drain();

 private:
  posix::UniqueFd fd_;
  sigset_t old_mask_;
  struct sigaction old_sigpipe_ = {};
};

}  // namespace monitor
