#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

namespace ravelin::platform {

/// Says how many bytes all transfers that have a limit may take by now. Network thread only.
class RateLimiter {
public:
  using Clock = std::chrono::steady_clock;

  /// Holds for all from now on, or else the slowest would pace them; above 0.
  void set_rate(std::int64_t bytes_per_second) {
    const auto before = std::exchange(rate_, static_cast<double>(bytes_per_second));
    if (rate_ != before && next_try_ != Clock::time_point::max())
      next_try_ = Clock::now(); // who was refused asks again, and learns the new time
  }
  /// Whether bytes may be taken now.
  bool may_take(Clock::time_point now) {
    const std::chrono::duration<double> passed = now - last_;
    last_ = now;
    // What was not used for a while is not saved up, but for a twentieth of a second's worth.
    allowance_ = std::min(allowance_ + passed.count() * rate_, rate_ / 20);
    if (allowance_ >= 0)
      return true;
    const std::chrono::duration<double> debt_time(-allowance_ / rate_);
    next_try_ =
        now + std::chrono::duration_cast<Clock::duration>(debt_time) + std::chrono::milliseconds(1);
    return false;
  }
  void take(std::int64_t bytes) { allowance_ -= static_cast<double>(bytes); }
  /// When those who were refused may try again; never while there are none.
  Clock::time_point next_try() const { return next_try_; }
  void forget_waiting() { next_try_ = Clock::time_point::max(); }

private:
  double rate_ = 1; // bytes per second
  Clock::time_point last_ = Clock::now();
  double allowance_ = 0; // bytes; below zero after a piece that was larger than what was left
  Clock::time_point next_try_ = Clock::time_point::max();
};

} // namespace ravelin::platform
