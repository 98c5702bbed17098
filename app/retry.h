#pragma once

#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace ravelin::app {

/// What to do about a failed attempt.
enum class Remedy { give_up, try_again, try_in_one_piece };

/// Decides over failed attempts of one download.
class RetryPolicy {
public:
  explicit RetryPolicy(int most_retries) : most_retries_(most_retries) {}

  /// `received`: bytes on record after the attempt; `split`: whether it could ask for ranges.
  Remedy judge(const CustomError& error, std::int64_t received, bool split);
  /// How long to wait before the attempt that `judge` just granted.
  std::chrono::milliseconds wait() const { return wait_; }
  int attempt() const { return attempt_; }
  /// "trying again in 1.5 s (2 of 5)".
  std::string words() const;

private:
  int most_retries_;
  int attempt_ = 0;
  std::int64_t received_ = 0;
  std::chrono::milliseconds wait_{0};
};

} // namespace ravelin::app
