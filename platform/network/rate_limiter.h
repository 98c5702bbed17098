#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace ravelin::platform {

/// A rate limit shared by transfers.
///
/// Threads: constructed on any, then used on the network thread only.
class RateLimiter {
public:
  using Clock = std::chrono::steady_clock;

  explicit RateLimiter(std::int64_t bytes_per_second) { set_rate(bytes_per_second); }
  /// Above 0.
  void set_rate(std::int64_t bytes_per_second) { rate_ = static_cast<double>(bytes_per_second); }

  bool may_take(Clock::time_point now) {
    const std::chrono::duration<double> passed = now - last_;
    last_ = now;
    // At most 50 ms of unused rate are saved up.
    allowance_ = std::min(allowance_ + passed.count() * rate_, rate_ / 20);
    return allowance_ >= 0;
  }
  void take(std::int64_t bytes) { allowance_ -= static_cast<double>(bytes); }
  /// When bytes may be taken again.
  Clock::time_point ready_at() const {
    const std::chrono::duration<double> debt_time(std::max(-allowance_, 0.0) / rate_);
    return last_ + std::chrono::ceil<std::chrono::milliseconds>(debt_time);
  }

private:
  double rate_ = 1; // bytes per second
  Clock::time_point last_ = Clock::now();
  double allowance_ = 0; // bytes; negative after taking more than was left
};

} // namespace ravelin::platform
