// The one bounded wait of the tests: whether a condition comes true within a time limit.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

// Whether done() holds within timeout, asked again every step.
inline bool Eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5),
                       std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
  for (const auto until = std::chrono::steady_clock::now() + timeout; !done();) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(step);
  }
  return true;
}
