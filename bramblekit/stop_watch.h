#pragma once

#include <chrono>

namespace ravelin::bramblekit {

/// Measures the time since its construction or the last reset.
class StopWatch {
public:
  void reset() { start_ = Clock::now(); }
  /// Seconds.
  double elapsed_time() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
  }

private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

} // namespace ravelin::bramblekit
