#include "app/retry.h"

#include <fmt/core.h>

#include <algorithm>
#include <random>

namespace ravelin::app {
namespace {

using std::chrono::milliseconds;

constexpr auto first_wait = milliseconds(500);
constexpr auto longest_wait = milliseconds(30'000);
constexpr auto longest_wait_asked_for = milliseconds(300'000);

bool is_busy_status(int status) {
  return status == 408 || status == 429 || status >= 500;
}

const URLLoadingError* loading_error(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  return other ? other->error.get_if<URLLoadingError>() : nullptr;
}

bool may_pass(const CustomError& error, bool has_come_far) {
  if (error.holds<CustomError::timeout>() || error.holds<CustomError::network_connection_lost>())
    return true;
  const auto* const loading = loading_error(error);
  if (loading && loading->http_status)
    return is_busy_status(*loading->http_status);
  const bool unreachable = error.holds<CustomError::not_connected_to_internet>() ||
                           (loading && (loading->code() == URLError::cannot_connect_to_host ||
                                        loading->code() == URLError::cannot_find_host));
  return unreachable && has_come_far; // it was there before: a server or a network that restarts
}

/// The link answers, but not for ranges.
bool ranges_are_refused(const CustomError& error) {
  const auto* const loading = loading_error(error);
  if (!loading || !loading->asked_for_range)
    return false;
  if (loading->refusal == URLLoadingError::Refusal::range)
    return true;
  return loading->http_status && !is_busy_status(*loading->http_status);
}

milliseconds jittered(milliseconds wait) {
  static std::mt19937 random{std::random_device{}()};
  std::uniform_real_distribution<double> share(0.5, 1.0);
  return milliseconds(static_cast<std::int64_t>(static_cast<double>(wait.count()) * share(random)));
}

} // namespace

Remedy RetryPolicy::judge(const CustomError& error, std::int64_t received, bool split) {
  if (split && ranges_are_refused(error)) {
    wait_ = milliseconds(0);
    return Remedy::try_in_one_piece;
  }
  if (received > received_)
    attempt_ = 0;
  received_ = std::max(received_, received);
  if (attempt_ >= most_retries_ || !may_pass(error, received_ > 0))
    return Remedy::give_up;
  ++attempt_;
  const auto grown = first_wait * (std::int64_t{1} << std::min(attempt_ - 1, 10));
  wait_ = jittered(std::min<milliseconds>(grown, longest_wait));
  const auto* const loading = loading_error(error);
  if (loading && loading->retry_after)
    wait_ = std::clamp<milliseconds>(*loading->retry_after, wait_, longest_wait_asked_for);
  return Remedy::try_again;
}

std::string RetryPolicy::words() const {
  return fmt::format("trying again in {:.1f} s ({} of {})",
                     std::chrono::duration<double>(wait_).count(), attempt_, most_retries_);
}

} // namespace ravelin::app
