#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "ravelin/text.h"
#include "src/RavelinOperation_impl.h"
#include "src/ResponseChecks.h"
#include "src/RetryPolicy.h"

// The attempts of a run, and waiting between them.

namespace ravelin {

using bramblekit::Exception;
using bramblekit::main_sync;

/// Repeats attempts until the download is complete or must not be retried.
void RavelinOperation::Impl::bg_download(Run& run) {
  const auto limits = settings->options.retry.value_or(Retry{});
  RetryPolicy policy(limits);
  bool split = run.split_allowed;
  for (;;) {
    Error error = bramblekit::to_error(Exception());
    try {
      auto held_response = bg_request_http_header(run, split);
      if (bg_is_complete(run))
        return;
      if (split)
        main_sync([&]() MAIN_ONLY { policy.note_ranges(ranges_accepted); });
      bg_start_connections(run, split, std::move(held_response));
      return;
    } catch (...) {
      error = Error::current();
    }
    if (limits.max_attempts <= 0 || error.is<Exception>())
      error.rethrow();
    const auto remedy = main_sync([&]() MAIN_ONLY { return judge(policy, error, run, split); });
    if (remedy == Remedy::give_up)
      error.rethrow();
    split = split && remedy != Remedy::try_in_one_piece;
    bg_wait_to_retry(policy.wait());
  }
}

Remedy RavelinOperation::Impl::judge(RetryPolicy& policy, const Error& error, const Run& run,
                                     bool split) {
  if (opr.is_cancelled())
    return Remedy::give_up;
  const auto custom_error = make_custom_error(error);
  const auto received =
      run.must_restart ? 0 : RavelinOperation::get_progress(run.destination).received_bytes;
  const bool could_split = can_split(split, ranges_accepted, content_len, settings->options);
  const auto remedy = policy.judge(custom_error, received, could_split);
  const auto* const loading = error.get_if<URLLoadingError>();
  // It may count connections for a while after they are closed, or allow one only.
  one_at_a_time =
      loading && loading->asked_for_range && is_refused_for_now(error) && policy.repetitions() > 1;
  if (remedy == Remedy::give_up)
    return remedy;
  if (remedy == Remedy::try_in_one_piece && received > 0 && !run.is_begun_here &&
      keeps_unfinished(run))
    lost_ranges("refuses requests for byte ranges: " + custom_error.text()).rethrow();
  const auto what =
      remedy == Remedy::try_in_one_piece ? "retrying over one connection" : policy.describe_retry();
  log("'" + without_password(run.link.text()) + "': " + custom_error.text() + "; " + what);
  const auto notify = [&]() noexcept {
    if (const auto& on_retry = settings->options.on_retry)
      on_retry({custom_error, policy.wait(), what});
  };
  notify();
  retry_wait = std::make_shared<platform::RetryWait>(policy.waits_for_network());
  if (opr.is_cancelled()) // by the callback
    retry_wait->interrupt();
  return remedy;
}

void RavelinOperation::Impl::bg_wait_to_retry(std::chrono::milliseconds time) {
  const auto wait = main_sync([&]() MAIN_ONLY { return retry_wait; });
  wait->wait(time);
  main_sync([&]() MAIN_ONLY { retry_wait = nullptr; });
}

void RavelinOperation::Impl::log(const std::string& line) const noexcept {
  if (settings->options.log)
    settings->options.log(line);
}

} // namespace ravelin
