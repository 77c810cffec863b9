#include "ShutdownSignals.h"

#include <unistd.h>

#if defined(__linux__)
#include <sys/signalfd.h>
#else
#include <sys/event.h>
#endif

namespace monitor {

namespace {

sigset_t ShutdownSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

#if defined(__linux__)

// A signalfd takes the pending signal itself when it is read.
posix::UniqueFd OpenSignalQueue(const sigset_t& set) {
  return posix::UniqueFd(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

int TakeQueued(int fd) {
  signalfd_siginfo info;
  int count = 0;
  while (::read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) ++count;
  return count;
}

void DiscardPending(const sigset_t&) {}

#else

// A kqueue records each delivery attempt, even of a blocked signal, which stays pending.
// (A kqueue is never inherited by a child process, so it needs no close-on-exec.)
posix::UniqueFd OpenSignalQueue(const sigset_t&) {
  posix::UniqueFd queue(::kqueue());
  if (!queue.ok()) return queue;
  struct kevent watch[2];
  EV_SET(&watch[0], SIGINT, EVFILT_SIGNAL, EV_ADD, 0, 0, nullptr);
  EV_SET(&watch[1], SIGTERM, EVFILT_SIGNAL, EV_ADD, 0, 0, nullptr);
  if (::kevent(queue.get(), watch, 2, nullptr, 0, nullptr) != 0) queue.reset();
  return queue;
}

int TakeQueued(int fd) {
  struct kevent fired[2];
  const timespec now = {0, 0};
  const int n = ::kevent(fd, nullptr, 0, fired, 2, &now);
  int count = 0;
  // data: how many times the signal came since the last kevent() that returned it.
  for (int i = 0; i < n; ++i) count += static_cast<int>(fired[i].data);
  return count;
}

// The kqueue left the signals pending; sigwait takes them (blocked, so it returns at once).
void DiscardPending(const sigset_t& set) {
  sigset_t pending;
  while (sigpending(&pending) == 0 &&
         (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1)) {
    int taken = 0;
    if (sigwait(&set, &taken) != 0) return;
  }
}

#endif

}  // namespace

ShutdownSignals::ShutdownSignals() {
  const sigset_t set = ShutdownSet();
  pthread_sigmask(SIG_BLOCK, &set, &old_mask_);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, &old_sigpipe_);
  fd_ = OpenSignalQueue(set);
}

ShutdownSignals::~ShutdownSignals() {
  // A signal left pending would hit the restored mask and take the default action.
  if (fd_.ok()) Drain();
  DiscardPending(ShutdownSet());
  sigaction(SIGPIPE, &old_sigpipe_, nullptr);
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

int ShutdownSignals::Drain() { return TakeQueued(fd_.get()); }

}  // namespace monitor
