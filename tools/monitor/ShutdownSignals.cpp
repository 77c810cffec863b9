#include "ShutdownSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace monitor {

namespace {

int s_read_fd = -1;
int s_write_fd = -1;
struct sigaction s_old_int, s_old_term, s_old_pipe;

void OnShutdownSignal(int signal_number) {
  const int saved_errno = errno;
  const char byte = static_cast<char>(signal_number);
  [[maybe_unused]] ssize_t written = ::write(s_write_fd, &byte, 1);
  errno = saved_errno;
}

sigset_t ShutdownSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

ShutdownSignals::ShutdownSignals() {
  int fds[2];
  if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return;
  s_read_fd = fds[0];
  s_write_fd = fds[1];
  struct sigaction action = {};
  action.sa_handler = OnShutdownSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, &s_old_int);
  sigaction(SIGTERM, &action, &s_old_term);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, &s_old_pipe);
}

ShutdownSignals::~ShutdownSignals() {
  if (s_read_fd < 0) return;
  sigaction(SIGINT, &s_old_int, nullptr);
  sigaction(SIGTERM, &s_old_term, nullptr);
  sigaction(SIGPIPE, &s_old_pipe, nullptr);
  ::close(s_read_fd);
  ::close(s_write_fd);
  s_read_fd = s_write_fd = -1;
}

bool ShutdownSignals::ok() const { return s_read_fd >= 0; }
int ShutdownSignals::fd() const { return s_read_fd; }

int ShutdownSignals::Drain() {
  char bytes[64];
  int count = 0;
  ssize_t n;
  while ((n = ::read(s_read_fd, bytes, sizeof bytes)) > 0) count += static_cast<int>(n);
  return count;
}

void ShutdownSignals::BlockInThisThread() {
  const sigset_t set = ShutdownSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void ShutdownSignals::Unblock() {
  const sigset_t set = ShutdownSet();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace monitor
