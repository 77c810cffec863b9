#include "ShutdownSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace monitor {

namespace {

sigset_t ShutdownSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

ShutdownSignals::ShutdownSignals() {
  const sigset_t set = ShutdownSet();
  pthread_sigmask(SIG_BLOCK, &set, &old_mask_);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, &old_sigpipe_);
  fd_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

ShutdownSignals::~ShutdownSignals() {
  // A signal left pending would hit the restored mask and take the default action.
  if (fd_ >= 0) {
    Drain();
    ::close(fd_);
  }
  sigaction(SIGPIPE, &old_sigpipe_, nullptr);
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

int ShutdownSignals::Drain() {
  signalfd_siginfo info;
  int count = 0;
  while (::read(fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) ++count;
  return count;
}

}  // namespace monitor
