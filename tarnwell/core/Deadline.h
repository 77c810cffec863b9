// A point in time after which an operation gives up. Every wait on the ADB server, a phone or a
// child process is measured against one of these, so no call can block without a bound.
#pragma once

#include <chrono>

namespace tarnwell {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  static Deadline AfterMs(int milliseconds);
  // The earlier of the two.
  static Deadline Earliest(const Deadline& a, const Deadline& b);

  bool Expired() const;
  // Milliseconds left, rounded up, never negative; suitable for poll().
  int RemainingMs() const;
  Clock::time_point When() const { return when_; }

 private:
  explicit Deadline(Clock::time_point when) : when_(when) {}
  Clock::time_point when_;
};

}  // namespace tarnwell
