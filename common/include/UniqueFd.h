// One owned file descriptor: closed when the owner goes, handed on only by moving. Header-only,
// so every library and tool of the tree can hold descriptors this way without a link dependency.
#pragma once

#include <unistd.h>

#include <cerrno>

namespace posix {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

  // Closes what is held and takes fd. errno survives, so a caller may reset on a failure path
  // and still report why it failed.
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0 && fd_ != fd) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }
  // Gives up ownership without closing.
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace posix
