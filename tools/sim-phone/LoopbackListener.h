// A listening TCP socket on 127.0.0.1, shared by the simulated phone and the simulated ADB
// server: port 0 lets the system pick one.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "PosixCompat.h"

namespace sim_phone {

class LoopbackListener {
 public:
  LoopbackListener(std::uint16_t port, int backlog) {
    posix::UniqueFd fd = posix::Socket(AF_INET, SOCK_STREAM, posix::Blocking::kYes);
    if (!fd.ok() || !posix::OpenPipe(&wake_, posix::Blocking::kNo)) return;
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);  // Return() on the same port
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), backlog) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    listen_ = std::move(fd);
  }

  bool ok() const { return listen_.ok(); }
  std::uint16_t port() const { return port_; }
  // Readable once Wake() was called, for threads that wait on connections of this listener.
  int wake_fd() const { return wake_.read.get(); }

  // The next connection; invalid once Wake() was called or on a lasting error. Waits through
  // poll() because a blocked accept() wakes for a shutdown() of its socket on Linux only.
  posix::UniqueFd Accept() const {
    for (;;) {
      pollfd entries[2] = {{listen_.get(), POLLIN, 0}, {wake_fd(), POLLIN, 0}};
      const int ready = ::poll(entries, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || entries[1].revents != 0) return posix::UniqueFd();
      posix::UniqueFd fd = posix::Accept(listen_.get());
      if (fd.ok() || (errno != EINTR && errno != ECONNABORTED)) return fd;
    }
  }

  // Ends every Accept(), now and later; any thread.
  void Wake() const {
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.write.get(), &byte, 1);
  }

 private:
  posix::UniqueFd listen_;
  posix::Pipe wake_;
  std::uint16_t port_ = 0;
};

}  // namespace sim_phone
