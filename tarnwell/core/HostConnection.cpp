#include "HostConnection.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "PosixCompat.h"
#include "Tarnwell.h"

namespace tarnwell {

namespace {

std::string ErrnoText(const char* what, int err) {
  return std::string(what) + ": " + std::strerror(err);
}

}  // namespace

int HostConnection::Connect(std::uint16_t port, const Deadline& deadline, std::string* why) {
  // Non-blocking from the start so that connect, reads and writes all wait through poll().
  fd_ = posix::Socket(AF_INET, SOCK_STREAM, posix::Blocking::kNo);
  if (!fd_.ok()) {
    *why = ErrnoText("socket", errno);
    return TARNWELL_ERR_IO;
  }
  // Request, answer, next request on one connection: Nagle would hold the second request back
  // until the server's delayed ACK.
  int one = 1;
  ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return TARNWELL_OK;
  int err = errno;
  if (err == EINPROGRESS) {
    int waited = WaitFor(POLLOUT, deadline, why);
    if (waited != TARNWELL_OK) return waited;
    socklen_t len = sizeof err;
    if (::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err == 0) return TARNWELL_OK;
  }
  *why = ErrnoText("connect", err) + " (127.0.0.1:" + std::to_string(port) + ")";
  return err == ECONNREFUSED ? TARNWELL_ERR_NO_SERVER : TARNWELL_ERR_IO;
}

int HostConnection::WaitFor(short events, const Deadline& deadline, std::string* why) {
  return PollSocket(events, &deadline, why);
}

int HostConnection::AwaitInput(std::string* why) { return PollSocket(POLLIN, nullptr, why); }

int HostConnection::PollSocket(short events, const Deadline* deadline, std::string* why) {
  for (;;) {
    pollfd entries[2] = {{fd_.get(), events, 0}, {wake_fd_, POLLIN, 0}};
    const int ready = ::poll(entries, wake_fd_ >= 0 ? 2 : 1, deadline != nullptr ? deadline->RemainingMs() : -1);
    if (ready > 0 && wake_fd_ >= 0 && entries[1].revents != 0) {
      *why = "stopped";
      return TARNWELL_ERR_IO;
    }
    if (ready > 0) return TARNWELL_OK;
    if (ready == 0) {
      *why = "no answer in time";
      return TARNWELL_ERR_TIMEOUT;
    }
    if (errno != EINTR) {
      *why = ErrnoText("poll", errno);
      return TARNWELL_ERR_IO;
    }
  }
}

int HostConnection::SendAll(std::string_view bytes, const Deadline& deadline, std::string* why) {
  while (!bytes.empty()) {
    ssize_t sent = posix::SendNoSignal(fd_.get(), bytes.data(), bytes.size());
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      int waited = WaitFor(POLLOUT, deadline, why);
      if (waited != TARNWELL_OK) return waited;
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    int err = errno;
    *why = ErrnoText("send", err);
    return (err == EPIPE || err == ECONNRESET) ? TARNWELL_ERR_CLOSED : TARNWELL_ERR_IO;
  }
  return TARNWELL_OK;
}

int HostConnection::ReadSome(char* buf, std::size_t cap, std::size_t* got,
                             const Deadline& deadline, std::string* why) {
  for (;;) {
    ssize_t n = ::recv(fd_.get(), buf, cap, 0);
    if (n >= 0) {
      *got = static_cast<std::size_t>(n);
      return TARNWELL_OK;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      int waited = WaitFor(POLLIN, deadline, why);
      if (waited != TARNWELL_OK) return waited;
      continue;
    }
    int err = errno;
    *why = ErrnoText("recv", err);
    // A reset is the peer going away, the same for the caller as an early end of stream.
    return err == ECONNRESET ? TARNWELL_ERR_CLOSED : TARNWELL_ERR_IO;
  }
}

int HostConnection::ReadExact(std::size_t n, std::string* out, const Deadline& deadline,
                              std::string* why) {
  out->assign(n, '\0');
  std::size_t have = 0;
  while (have < n) {
    std::size_t got = 0;
    int result = ReadSome(&(*out)[have], n - have, &got, deadline, why);
    if (result != TARNWELL_OK) return result;
    if (got == 0) {
      out->resize(have);
      *why = "connection closed after " + std::to_string(have) + " of " + std::to_string(n) +
             " bytes";
      return TARNWELL_ERR_CLOSED;
    }
    have += got;
  }
  return TARNWELL_OK;
}

int HostConnection::ReadToEnd(std::size_t keep, std::string* out, const Deadline& deadline,
                              std::string* why) {
  out->clear();
  char chunk[4096];
  for (;;) {
    std::size_t got = 0;
    int result = ReadSome(chunk, sizeof chunk, &got, deadline, why);
    if (result != TARNWELL_OK) return result;
    if (got == 0) return TARNWELL_OK;
    if (out->size() < keep) out->append(chunk, got < keep - out->size() ? got : keep - out->size());
  }
}

}  // namespace tarnwell
