#include "ReportQueue.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace monitor {

ReportQueue::ReportQueue() {
  int fds[2];
  if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
    read_fd_ = fds[0];
    write_fd_ = fds[1];
  }
}

ReportQueue::~ReportQueue() {
  if (read_fd_ >= 0) ::close(read_fd_);
  if (write_fd_ >= 0) ::close(write_fd_);
}

void ReportQueue::Push(const char* text, int length) {
  if (text == nullptr) return;
  const size_t size = length >= 0 ? static_cast<size_t>(length) : std::strlen(text);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.emplace_back(text, size);
  }
  // A full pipe already holds a wake-up; nothing is lost by dropping this byte.
  const char byte = 'r';
  [[maybe_unused]] ssize_t written = ::write(write_fd_, &byte, 1);
}

std::vector<std::string> ReportQueue::TakeAll() {
  char sink[256];
  while (::read(read_fd_, sink, sizeof sink) > 0) {
  }
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> taken;
  taken.swap(reports_);
  return taken;
}

}  // namespace monitor
