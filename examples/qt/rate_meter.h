#pragma once

#include <QElapsedTimer>
#include <cstdint>

/// Bytes per second, smoothed over some seconds.
class RateMeter {
public:
  /// `bytes`: received so far, at the beginning of a run.
  void restart(std::int64_t bytes) {
    bytes_ = bytes;
    rate_ = 0;
    clock_.start();
  }

  void count(std::int64_t bytes) {
    constexpr int interval = 500; // milliseconds; shorter ones only tell how large chunks are
    if (clock_.elapsed() < interval)
      return;
    const double now = 1000.0 * static_cast<double>(bytes - bytes_) / double(clock_.restart());
    rate_ = rate_ == 0 ? now : 0.7 * rate_ + 0.3 * now;
    bytes_ = bytes;
  }

  double rate() const { return rate_; }

private:
  QElapsedTimer clock_;
  std::int64_t bytes_ = 0;
  double rate_ = 0;
};
