#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace platform {

/// Says how many bytes all transfers together may take by now. Network thread only.
class RateLimiter {
public:
  using Clock = std::chrono::steady_clock;

  /// Whether bytes may be taken now; `bytes_per_second` is above 0.
  bool may_take(std::int64_t bytes_per_second, Clock::time_point now) {
    const std::chrono::duration<double> passed = now - last_;
    last_ = now;
    const auto rate = static_cast<double>(bytes_per_second);
    // What was not used for a while is not saved up, but for a twentieth of a second's worth.
    allowance_ = std::min(allowance_ + passed.count() * rate, rate / 20);
    if (allowance_ >= 0)
      return true;
    const std::chrono::duration<double> debt_time(-allowance_ / rate);
    next_try_ =
        now + std::chrono::duration_cast<Clock::duration>(debt_time) + std::chrono::milliseconds(1);
    return false;
  }
  void take(std::int64_t bytes) { allowance_ -= static_cast<double>(bytes); }
  /// When those who were refused may try again; never while there are none.
  Clock::time_point next_try() const { return next_try_; }
  void forget_waiting() { next_try_ = Clock::time_point::max(); }

private:
  Clock::time_point last_ = Clock::now();
  double allowance_ = 0; // bytes; below zero after a piece that was larger than what was left
  Clock::time_point next_try_ = Clock::time_point::max();
};

} // namespace platform
