#include "src/RetryPolicy.h"

#include "bramblekit/background.h"
#include "ravelin/main_queue.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <system_error>
#include <utility>

namespace ravelin {
namespace {

using std::chrono::milliseconds;

constexpr auto first_wait = milliseconds(500);
constexpr auto max_wait = milliseconds(30'000);
constexpr auto max_requested_wait = milliseconds(300'000);

bool is_busy_status(int status) {
  return status == 408 || status == 429 || status >= 500;
}

const URLLoadingError* loading_error(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  return other ? other->error.get_if<URLLoadingError>() : nullptr;
}

bool is_temporary(const CustomError& error) {
  const auto* const loading = loading_error(error);
  return error.holds<CustomError::timeout>() ||
         error.holds<CustomError::network_connection_lost>() ||
         (loading && loading->http_status && is_busy_status(*loading->http_status));
}

bool is_unreachable(const CustomError& error) {
  const auto* const loading = loading_error(error);
  return error.holds<CustomError::not_connected_to_internet>() ||
         (loading && (loading->code() == URLError::cannot_connect_to_host ||
                      loading->code() == URLError::cannot_find_host));
}

/// The response to a range request was an error status. It may be temporary if ranges worked
/// before.
bool is_refused_range(const CustomError& error) {
  const auto* const loading = loading_error(error);
  return loading && loading->asked_for_range && loading->http_status &&
         loading->refusal == URLLoadingError::Refusal::http_status &&
         !is_busy_status(*loading->http_status);
}

/// The server refuses range requests only.
bool ranges_are_refused(const CustomError& error) {
  const auto* const loading = loading_error(error);
  if (!loading || !loading->asked_for_range)
    return false;
  return loading->refusal == URLLoadingError::Refusal::range || is_refused_range(error);
}

/// The server of this header is not the one that offered ranges before.
bool lacks_ranges(const CustomError& error) {
  const auto* const loading = loading_error(error);
  return loading && loading->refusal == URLLoadingError::Refusal::range &&
         !loading->asked_for_range && !loading->http_status;
}

milliseconds add_jitter(milliseconds wait) {
  static std::mt19937 random{std::random_device{}()};
  std::uniform_real_distribution<double> factor(0.5, 1.0);
  return milliseconds(
      static_cast<std::int64_t>(static_cast<double>(wait.count()) * factor(random)));
}

} // namespace

bool RetryPolicy::may_retry(const CustomError& error, Clock::time_point now) {
  // If so, the server or network may just be restarting. An attempt in one piece may have dropped
  // the bytes.
  const bool has_received = max_received_ > 0;
  const bool is_away = is_unreachable(error) || error.holds<CustomError::timeout>();
  const auto* const other = error.get_if<CustomError::other>();
  const bool may_recover = is_unreachable(error) || is_refused_range(error) ||
                           lacks_ranges(error) || (other && lacks_resources(other->error));
  if (!is_temporary(error) && !(may_recover && has_received))
    return false;
  beyond_attempts_ = attempt_ >= limits_.max_attempts;
  const auto failing_for = std::chrono::duration_cast<milliseconds>(now - *failing_since_);
  return !beyond_attempts_ || (is_away && has_received && failing_for < limits_.patience);
}

Remedy RetryPolicy::judge(const CustomError& error, std::int64_t received, bool split,
                          Clock::time_point now) {
  if (split && ranges_are_refused(error) &&
      (received == 0 || !is_refused_range(error) || attempt_ >= limits_.max_attempts)) {
    wait_ = milliseconds(0);
    return Remedy::try_in_one_piece;
  }
  // An attempt in one piece restarts from zero, and repeating what it did is no progress. One that
  // is split has fewer bytes only if the whole download was restarted.
  if (split ? received != received_ : received > max_received_) {
    attempt_ = 0;
    failing_since_.reset();
  }
  received_ = received;
  max_received_ = std::max(max_received_, received);
  failing_since_ = failing_since_.value_or(now);
  if (limits_.max_attempts <= 0 || !may_retry(error, now))
    return Remedy::give_up;
  ++attempt_;
  const auto backoff = first_wait * (std::int64_t{1} << std::min(attempt_ - 1, 10));
  wait_ = add_jitter(std::min<milliseconds>(backoff, max_wait));
  const auto* const loading = loading_error(error);
  waits_for_network_ = is_unreachable(error) && !(loading && loading->retry_after);
  if (loading && loading->retry_after)
    wait_ = std::clamp<milliseconds>(*loading->retry_after, wait_, max_requested_wait);
  return Remedy::try_again;
}

void RetryPolicy::note_ranges(bool are_offered) {
  if (!are_offered && ranges_were_offered_ && max_received_ > 0 &&
      attempt_ < limits_.max_attempts) {
    URLLoadingError error(URLError::bad_server_response, "the server offers no byte ranges now");
    error.refusal = URLLoadingError::Refusal::range;
    throw error;
  }
  ranges_were_offered_ = ranges_were_offered_ || are_offered;
}

std::string RetryPolicy::describe_retry() const {
  char text[64];
  const auto seconds = std::chrono::duration<double>(wait_).count();
  if (beyond_attempts_)
    std::snprintf(text, sizeof text, "retrying in %.1f s", seconds);
  else
    std::snprintf(text, sizeof text, "retrying in %.1f s (%d of %d)", seconds, attempt_,
                  limits_.max_attempts);
  return text;
}

bool is_refused_for_now(const Error& error) {
  const auto* const loading = error.get_if<URLLoadingError>();
  return loading && loading->http_status &&
         (*loading->http_status == 403 || *loading->http_status == 429 ||
          *loading->http_status == 503);
}

bool lacks_resources(const Error& error) {
  return error.code() == URLError::resource_unavailable ||
         error.code() == std::errc::resource_unavailable_try_again ||
         error.code() == std::errc::too_many_files_open;
}

bool is_lost_connection(const Error& error) {
  return error.code() == URLError::network_connection_lost || error.code() == URLError::timed_out;
}

std::shared_ptr<platform::RetryWait> wait_in_background(const RetryPolicy& policy,
                                                        std::function<void()> after) try {
  auto wait = std::make_shared<platform::RetryWait>(policy.waits_for_network());
  bramblekit::bg_async(0.0, [wait, time = policy.wait(), after = std::move(after)]() mutable {
    wait->wait(time);
    MainQueue::async(std::move(after));
  });
  return wait;
} catch (const std::system_error&) {
  return nullptr;
}

} // namespace ravelin
