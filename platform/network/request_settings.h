#pragma once

#include "ravelin/options.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace ravelin::platform {

class RateLimiter;

/// The same options, with functions that are destroyed on the main thread, whoever drops the last
/// copy.
Options with_functions_freed_on_main(Options options);

/// The settings of all requests of one run, fixed when the run starts.
///
/// Threads: immutable, except for the limiter, which belongs to the network thread.
struct RequestSettings {
  /// `own`, with unset options taken from the process's defaults.
  static std::shared_ptr<const RequestSettings> snapshot(const Options& own = {});

  Options options;
  std::optional<std::int64_t> process_rate_limit; // bytes per second, for all runs together
  std::shared_ptr<RateLimiter> limiter;           // of this run alone; null for no limit
};

} // namespace ravelin::platform
