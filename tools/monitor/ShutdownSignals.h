// SIGINT and SIGTERM as bytes on a pipe (the self-pipe trick): the handler only writes, the main
// thread polls the read end and does the work, so nothing but write() runs in signal context.
#pragma once

namespace monitor {

class ShutdownSignals {
 public:
  // Installs the handlers (SIGPIPE is ignored, so a closed stdout is an error code, not a death).
  ShutdownSignals();
  // Puts the previous handlers back.
  ~ShutdownSignals();
  ShutdownSignals(const ShutdownSignals&) = delete;
  ShutdownSignals& operator=(const ShutdownSignals&) = delete;

  bool ok() const;
  int fd() const;
  // Reads what is pending; returns how many signals arrived since the last call.
  int Drain();

  // Blocks SIGINT and SIGTERM in the calling thread; threads it creates afterwards inherit that,
  // so the library's threads never run the handler. Unblock() lifts it again.
  static void BlockInThisThread();
  static void Unblock();
};

}  // namespace monitor
