#pragma once

#include "ravelin/error.h"
#include "ravelin/options.h"
#include "ravelin/ravelin_operation.h"
#include "ravelin/response.h"
#include "ravelin/url.h"

#include <functional>
#include <memory>
#include <string_view>

namespace ravelin {

/// Requests the content of a link in order, over one connection, and passes it on instead of
/// keeping it in a file. At most 1.5 MiB is in memory at once.
///
/// Retries if `Options::retry` is set. Bytes that were passed on cannot be taken back: after a lost
/// connection, the rest is requested only if the server supports byte ranges and says by a strong
/// ETag that the content is still the same. Otherwise the request fails.
///
/// Threads: any. Ownership: the application's; if it is destroyed while a request is in progress,
/// that goes on.
class [[gnu::visibility("default")]] ContentRequest {
public:
  /// How a request has ended.
  enum class End { complete, cancelled, failed };

  /// None of them may throw, except `on_bytes`. Each may be empty.
  struct Callbacks {
    /// Called on the main thread before the first bytes; again if a retry starts from the
    /// beginning.
    std::function<void(const Response& response)> on_response = {};
    /// Called on the main thread before each call of `on_bytes`, with the bytes of that included.
    std::function<void(const Progress& progress)> on_progress = {};
    /// Called on a library thread, one call at a time. The transfer is held back while it runs. An
    /// exception from it ends the request with that error.
    std::function<void(std::string_view bytes)> on_bytes = {};
    /// Called last and once, on the main thread. `error` is null unless the request has failed.
    std::function<void(End end, const Error* error)> on_end = {};
  };

  /// Options that are not set are taken from the default options of the process.
  explicit ContentRequest(Options options = {});
  ~ContentRequest();
  ContentRequest(const ContentRequest&) = delete;
  ContentRequest& operator=(const ContentRequest&) = delete;

  /// Returns at once. A second call throws `std::logic_error`.
  void start(const URL& link, Callbacks callbacks);
  /// Ends the request as soon as `on_bytes` returns. Without effect after the end.
  void cancel();
  /// The current speed and the estimated time left. Waits for the main thread on another one.
  RavelinOperation::Speed speed() const;

private:
  class Impl;
  const std::shared_ptr<Impl> impl_;
};

} // namespace ravelin
