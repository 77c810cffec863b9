// Hands reports from the library's poll thread to the monitor's main thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "PosixCompat.h"

namespace monitor {

// Push never blocks: it queues a copy and writes one byte to a non-blocking pipe whose read end
// the main thread polls beside the descriptor that brings SIGINT and SIGTERM.
class ReportQueue {
 public:
  ReportQueue();
  ReportQueue(const ReportQueue&) = delete;
  ReportQueue& operator=(const ReportQueue&) = delete;

  bool ok() const { return wake_.read.ok(); }
  int wake_fd() const { return wake_.read.get(); }

  void Push(const char* text, int length);  // any thread
  std::vector<std::string> TakeAll();       // empties the queue and the wake-up pipe

 private:
  std::mutex mutex_;
  std::vector<std::string> reports_;
  posix::Pipe wake_;
};

}  // namespace monitor
