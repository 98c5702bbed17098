#pragma once

#include "platform/network/retry_wait.h"
#include "ravelin/options.h"
#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ravelin {

/// What to do about a failed attempt.
enum class Remedy { give_up, try_again, try_in_one_piece };

/// Decides whether failed attempts of one run are retried.
///
/// Threads: the main thread.
class RetryPolicy {
public:
  using Clock = std::chrono::steady_clock; // a suspended machine must not lose its patience

  explicit RetryPolicy(Retry limits) : limits_(limits) {}

  /// `received`: bytes in the record after the attempt. `split`: whether it could use ranges.
  Remedy judge(const CustomError& error, std::int64_t received, bool split,
               Clock::time_point now = Clock::now());
  /// Whether the header of an attempt offers ranges. Without them, what has come could not be
  /// continued, and one of several servers may offer none while the others do: as long as another
  /// attempt is allowed, that is an error for `judge()`.
  void note_ranges(bool are_offered);
  /// How long to wait before the attempt that `judge()` allowed.
  std::chrono::milliseconds wait() const { return wait_; }
  /// Whether a network that comes up ends the wait.
  bool waits_for_network() const { return waits_for_network_; }
  /// How often the attempt has been repeated without progress.
  int repetitions() const { return attempt_; }
  /// Such as "retrying in 1.5 s (2 of 5)".
  std::string describe_retry() const;

private:
  bool may_retry(const CustomError& error, Clock::time_point now);

  const Retry limits_;
  int attempt_ = 0;
  std::int64_t received_ = 0;
  std::int64_t max_received_ = 0;
  bool ranges_were_offered_ = false;
  std::optional<Clock::time_point> failing_since_; // since the last progress
  bool beyond_attempts_ = false;                   // allowed by `patience` only
  std::chrono::milliseconds wait_{0};
  bool waits_for_network_ = false;
};

/// Whether the server may just refuse that many connections (403, 429, 503).
bool is_refused_for_now(const Error& error);
/// Whether the process lacked a thread or a descriptor, so that fewer connections may work.
bool lacks_resources(const Error& error);
/// Whether the connection was lost or timed out.
bool is_lost_connection(const Error& error);

/// Calls `after` on the main thread when the policy's wait is over or was interrupted. Null if
/// there is no thread to wait on. Main thread.
std::shared_ptr<platform::RetryWait> wait_in_background(const RetryPolicy& policy,
                                                        std::function<void()> after);

} // namespace ravelin
