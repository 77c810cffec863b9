#include "Deadline.h"

namespace tarnwell {

Deadline Deadline::AfterMs(int milliseconds) {
  return Deadline(Clock::now() + std::chrono::milliseconds(milliseconds));
}

Deadline Deadline::Earliest(const Deadline& a, const Deadline& b) {
  return a.when_ < b.when_ ? a : b;
}

bool Deadline::Expired() const { return Clock::now() >= when_; }

int Deadline::RemainingMs() const {
  auto left = when_ - Clock::now();
  if (left <= Clock::duration::zero()) return 0;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return ms > 1000000 ? 1000000 : static_cast<int>(ms);
}

}  // namespace tarnwell
