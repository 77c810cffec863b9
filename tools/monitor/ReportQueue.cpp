#include "ReportQueue.h"

#include <unistd.h>

#include <cstring>

namespace monitor {

ReportQueue::ReportQueue() { posix::OpenPipe(&wake_, posix::Blocking::kNo); }

void ReportQueue::Push(const char* text, int length) {
  if (text == nullptr) return;
  const size_t size = length >= 0 ? static_cast<size_t>(length) : std::strlen(text);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.emplace_back(text, size);
  }
  // A full pipe already holds a wake-up; nothing is lost by dropping this byte.
  const char byte = 'r';
  [[maybe_unused]] ssize_t written = ::write(wake_.write.get(), &byte, 1);
}

std::vector<std::string> ReportQueue::TakeAll() {
  char sink[256];
  while (::read(wake_.read.get(), sink, sizeof sink) > 0) {
  }
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> taken;
  taken.swap(reports_);
  return taken;
}

}  // namespace monitor
