// The few POSIX calls whose best form differs between Linux and macOS, each decided here once.
//
// Linux keeps its atomic calls (SOCK_CLOEXEC, accept4, pipe2): no moment in which a child
// spawned by another thread inherits the new descriptor. macOS lacks them, so there the flags
// follow through fcntl; a Linux build with PELMORA_PORTABLE_POSIX takes that path too, so that
// it is built and tested here.
#pragma once

#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "UniqueFd.h"

#if defined(__APPLE__)
#include <crt_externs.h>
#include <mach-o/dyld.h>
#else
extern char** environ;
#endif

#if defined(__linux__) && !defined(PELMORA_PORTABLE_POSIX)
#define PELMORA_ATOMIC_DESCRIPTOR_FLAGS 1
#else
#define PELMORA_ATOMIC_DESCRIPTOR_FLAGS 0
#endif

namespace posix {

enum class Blocking { kYes, kNo };

// Close-on-exec, and O_NONBLOCK when asked; false with errno set.
inline bool SetDescriptorFlags(int fd, Blocking blocking) {
  const int fd_flags = ::fcntl(fd, F_GETFD);
  if (fd_flags < 0 || ::fcntl(fd, F_SETFD, fd_flags | FD_CLOEXEC) != 0) return false;
  if (blocking == Blocking::kYes) return true;
  const int status_flags = ::fcntl(fd, F_GETFL);
  return status_flags >= 0 && ::fcntl(fd, F_SETFL, status_flags | O_NONBLOCK) == 0;
}

// Where the system has SO_NOSIGPIPE (macOS), the socket itself is told not to raise SIGPIPE:
// older SDKs have no MSG_NOSIGNAL for send().
inline bool PrepareSocket(int fd, Blocking blocking) {
  if (!SetDescriptorFlags(fd, blocking)) return false;
#if defined(SO_NOSIGPIPE)
  int one = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one) != 0) return false;
#endif
  return true;
}

// A close-on-exec socket; invalid with errno set on failure.
inline UniqueFd Socket(int domain, int type, Blocking blocking) {
#if PELMORA_ATOMIC_DESCRIPTOR_FLAGS
  return UniqueFd(::socket(domain, type | SOCK_CLOEXEC | (blocking == Blocking::kNo ? SOCK_NONBLOCK : 0), 0));
#else
  UniqueFd fd(::socket(domain, type, 0));
  if (fd.ok() && !PrepareSocket(fd.get(), blocking)) fd.reset();
  return fd;
#endif
}

// The next connection of a listening socket, blocking and close-on-exec.
inline UniqueFd Accept(int listen_fd) {
#if PELMORA_ATOMIC_DESCRIPTOR_FLAGS
  return UniqueFd(::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC));
#else
  // BSD hands the listener's O_NONBLOCK on to the accepted socket; these listeners block.
  UniqueFd fd(::accept(listen_fd, nullptr, nullptr));
  if (fd.ok() && !PrepareSocket(fd.get(), Blocking::kYes)) fd.reset();
  return fd;
#endif
}

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

// Both ends close-on-exec, and non-blocking when asked; false with errno set.
inline bool OpenPipe(Pipe* ends, Blocking blocking) {
  int fds[2];
#if PELMORA_ATOMIC_DESCRIPTOR_FLAGS
  if (::pipe2(fds, O_CLOEXEC | (blocking == Blocking::kNo ? O_NONBLOCK : 0)) != 0) return false;
  ends->read.reset(fds[0]);
  ends->write.reset(fds[1]);
  return true;
#else
  if (::pipe(fds) != 0) return false;
  ends->read.reset(fds[0]);
  ends->write.reset(fds[1]);
  if (SetDescriptorFlags(fds[0], blocking) && SetDescriptorFlags(fds[1], blocking)) return true;
  ends->read.reset();
  ends->write.reset();
  return false;
#endif
}

// send() that reports a closed peer as EPIPE instead of raising SIGPIPE (with the sockets made
// above: on macOS it is their SO_NOSIGPIPE that does it).
inline ssize_t SendNoSignal(int fd, const void* data, size_t size) {
#if defined(MSG_NOSIGNAL)
  return ::send(fd, data, size, MSG_NOSIGNAL);
#else
  return ::send(fd, data, size, 0);
#endif
}

// This process's environment. A macOS dylib cannot refer to `environ` (only the main program
// defines it), so it asks dyld for it.
inline char** Environment() {
#if defined(__APPLE__)
  return *_NSGetEnviron();
#else
  return environ;
#endif
}

// The running program's file, symbolic links resolved; empty when it cannot be told.
inline std::string ExecutablePath() {
#if defined(__APPLE__)
  std::string given(PATH_MAX, '\0');
  uint32_t size = static_cast<uint32_t>(given.size());
  if (_NSGetExecutablePath(&given[0], &size) != 0) {  // too small: size now says what it needs
    given.assign(size, '\0');
    if (_NSGetExecutablePath(&given[0], &size) != 0) return std::string();
  }
  // The path the program was started by, which may hold links and "..".
  char resolved[PATH_MAX];
  return ::realpath(given.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
#else
  char path[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
#endif
}

}  // namespace posix
