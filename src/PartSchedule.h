#pragma once

#include "ravelin/options.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

namespace ravelin {

class PartialDataOpr;

/// Keeps track of which parts of a split download have a connection, which wait for one, and which
/// should be requested again because their connection is slow or lost.
///
/// Threads: the main thread.
class PartSchedule {
public:
  using Clock = std::chrono::steady_clock;

  PartSchedule() = default;
  explicit PartSchedule(const Options& options);

  bool may_open(std::size_t open_connections, Clock::time_point now = Clock::now()) const {
    return open_connections < max_connections_ && now >= held_until_;
  }
  /// Opens no connection until then.
  void hold_until(Clock::time_point time) { held_until_ = std::max(held_until_, time); }
  void limit_connections(std::size_t count);
  /// Parts that wait start a moment after another has ended, when its threads and descriptors are
  /// free. At once they would be refused.
  void start_later() { starts_later_ = true; }
  bool starts_later() const { return starts_later_; }
  void wait_for_connection(std::int64_t part) { waiting_.push_back(part); }
  bool has_waiting() const { return !waiting_.empty(); }
  std::optional<std::int64_t> take_waiting();

  void has_started(std::int64_t part, const std::shared_ptr<PartialDataOpr>& request);
  /// Whether the part is still the request's, and not taken over or finished.
  bool is_served_by(std::int64_t part, const std::shared_ptr<PartialDataOpr>& request) const {
    return at(part).request.lock() == request;
  }
  /// The response to the request, if it still serves the part, was accepted.
  void has_response(std::int64_t part, const std::shared_ptr<PartialDataOpr>& request);
  /// Whether the part has a request whose response was accepted.
  bool has_response(std::int64_t part) const { return at(part).is_open && at(part).is_accepted; }
  /// The part needs no request of its own any more. Returns the one that it had, if any.
  std::shared_ptr<PartialDataOpr> take_over(std::int64_t part);
  void has_received(std::int64_t part, std::int64_t bytes) { at(part).received += bytes; }
  /// Returns whether its request was given up.
  bool has_ended(std::int64_t part);
  /// Its request will be cancelled, and replaced when it has ended.
  void give_up(std::int64_t part) { at(part).is_given_up = true; }
  bool is_given_up(std::int64_t part) const;
  bool another_is_open(std::int64_t part) const;
  /// Whether the lost connection of the part may be replaced. If so, counts the replacement.
  bool may_replace(std::int64_t part);
  /// The request of a part that was below a quarter of the median rate for ten seconds and may be
  /// replaced; null if there is none. Counts the replacement.
  std::shared_ptr<PartialDataOpr> take_slow(Clock::time_point now = Clock::now());

private:
  struct Part {
    std::weak_ptr<PartialDataOpr> request; // the last one
    bool is_open = false;
    bool is_accepted = false; // the response to the request
    bool is_given_up = false;
    int replacements = 0;
    std::int64_t received = 0;      // bytes of this connection
    std::int64_t last_received = 0; // `received` at the last check
    std::optional<Clock::time_point> slow_since;
  };
  Part& at(std::int64_t part) { return parts_.at(static_cast<std::size_t>(part)); }
  const Part& at(std::int64_t part) const { return parts_.at(static_cast<std::size_t>(part)); }
  void check_rates(Clock::time_point now);

  std::size_t max_connections_ = 1;
  Clock::time_point held_until_;
  bool starts_later_ = false;
  int max_replacements_ = 0;
  std::array<Part, 5> parts_;
  std::deque<std::int64_t> waiting_;
  Clock::time_point last_check_ = Clock::now();
  double median_rate_ = 0; // bytes per second
};

} // namespace ravelin
