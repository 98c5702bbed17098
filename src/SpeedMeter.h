#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace ravelin {

/// Measures the download speed over the last seconds.
///
/// Threads: the main thread.
class SpeedMeter {
public:
  using Clock = std::chrono::steady_clock;

  /// `received`: bytes of the whole download so far.
  void note(std::int64_t received, Clock::time_point now = Clock::now()) {
    if (!samples_.empty() && now - samples_.back().time < sampling)
      return;
    samples_.push_back({now, received});
    while (now - samples_.front().time > window && samples_.size() > 2)
      samples_.pop_front();
  }
  /// Bytes per second; 0 if nothing arrives.
  double rate(Clock::time_point now = Clock::now()) const {
    if (samples_.size() < 2 || now - samples_.back().time > window)
      return 0;
    const std::chrono::duration<double> time = now - samples_.front().time;
    return static_cast<double>(samples_.back().received - samples_.front().received) / time.count();
  }
  /// Until `rest` bytes have arrived; none if it cannot be estimated.
  std::optional<std::chrono::seconds> time_left(std::int64_t rest) const {
    const auto speed = rate();
    if (speed <= 0 || rest < 0)
      return std::nullopt;
    return std::chrono::seconds(static_cast<std::int64_t>(static_cast<double>(rest) / speed + 0.5));
  }
  void reset() { samples_.clear(); }

private:
  static constexpr auto sampling = std::chrono::milliseconds(100);
  static constexpr auto window = std::chrono::seconds(4);
  struct Sample {
    Clock::time_point time;
    std::int64_t received;
  };
  std::deque<Sample> samples_;
};

} // namespace ravelin
