#include "src/PartSchedule.h"

#include "src/ResumeData.h"
#include "src/Splitting.h"

#include <algorithm>
#include <vector>

namespace ravelin {
namespace {

constexpr auto check_interval = std::chrono::seconds(1);
constexpr auto max_slow_time = std::chrono::seconds(10);
constexpr double slow_fraction = 0.25; // of the median rate

} // namespace

PartSchedule::PartSchedule(const Options& options)
    : max_connections_(static_cast<std::size_t>(std::clamp<std::int64_t>(
          options.max_connections.value_or(parts_when_split), 1, parts_when_split))),
      max_replacements_(options.retry && options.retry->max_attempts > 0
                            ? options.retry->max_range_restarts
                            : 0) {
  static_assert(std::tuple_size_v<decltype(parts_)> == parts_when_split);
}

void PartSchedule::limit_connections(std::size_t count) {
  max_connections_ = std::clamp<std::size_t>(count, 1, max_connections_);
}

std::optional<std::int64_t> PartSchedule::take_waiting() {
  if (waiting_.empty())
    return std::nullopt;
  const auto part = waiting_.front();
  waiting_.pop_front();
  return part;
}

void PartSchedule::has_started(std::int64_t part, const std::shared_ptr<PartialDataOpr>& request) {
  auto& started = at(part);
  started.request = request;
  started.is_open = true;
  started.is_accepted = false;
  started.received = 0;
  started.last_received = 0;
  started.slow_since.reset();
}

void PartSchedule::has_response(std::int64_t part, const std::shared_ptr<PartialDataOpr>& request) {
  if (is_served_by(part, request))
    at(part).is_accepted = true;
}

std::shared_ptr<PartialDataOpr> PartSchedule::take_over(std::int64_t part) {
  std::erase(waiting_, part);
  auto& taken = at(part);
  taken.is_open = false;
  taken.is_given_up = false;
  return std::exchange(taken.request, {}).lock();
}

bool PartSchedule::has_ended(std::int64_t part) {
  at(part).is_open = false;
  return std::exchange(at(part).is_given_up, false);
}

bool PartSchedule::is_given_up(std::int64_t part) const {
  return at(part).is_given_up;
}

bool PartSchedule::another_is_open(std::int64_t part) const {
  return std::ranges::any_of(
      parts_, [&](const auto& other) { return &other != &at(part) && other.is_open; });
}

bool PartSchedule::may_replace(std::int64_t part) {
  auto& lost = at(part);
  const bool makes_progress = lost.received > 0 || another_is_open(part);
  if (lost.replacements >= max_replacements_ || !makes_progress)
    return false;
  ++lost.replacements;
  return true;
}

void PartSchedule::check_rates(Clock::time_point now) {
  const auto seconds = std::chrono::duration<double>(now - last_check_).count();
  last_check_ = now;
  std::vector<double> rates;
  const auto rate_of = [&](const Part& part) {
    return static_cast<double>(part.received - part.last_received) / seconds;
  };
  for (const auto& part : parts_)
    if (part.is_open)
      rates.push_back(rate_of(part));
  if (rates.size() > 1) { // the last part is compared with the median before
    std::ranges::nth_element(rates, rates.begin() + static_cast<std::ptrdiff_t>(rates.size() / 2));
    median_rate_ = rates[rates.size() / 2];
  }
  for (auto& part : parts_) {
    const bool is_slow = part.is_open && rate_of(part) < median_rate_ * slow_fraction;
    part.slow_since = is_slow ? std::optional(part.slow_since.value_or(now)) : std::nullopt;
    part.last_received = part.received;
  }
}

std::shared_ptr<PartialDataOpr> PartSchedule::take_slow(Clock::time_point now) {
  if (max_replacements_ == 0 || now - last_check_ < check_interval)
    return nullptr;
  check_rates(now);
  for (auto& part : parts_) {
    const bool is_due = part.slow_since && now - *part.slow_since >= max_slow_time &&
                        part.replacements < max_replacements_ && !part.is_given_up;
    if (!is_due)
      continue;
    ++part.replacements;
    part.is_given_up = true;
    return part.request.lock();
  }
  return nullptr;
}

} // namespace ravelin
