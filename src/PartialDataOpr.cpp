#include "src/PartialDataOpr.h"

#include "bramblekit/background.h"
#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/fatal.h"
#include "src/HeaderValues.h"

#include <utility>

namespace ravelin {

using bramblekit::bg_async;
using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::URLSession;

void PartialDataOpr::request(const URL& url, std::optional<BytesRange> range,
                             StatusClosure status_closure) {
  activate();
  main_sync([&]() MAIN_ONLY { stat_closure = status_closure; });
  auto work = [self = std::static_pointer_cast<PartialDataOpr>(shared_from_this()), url, range,
               closure = std::move(status_closure)] { self->bg_request(url, range, closure); };
  if (auto* const waiting = std::exchange(own_work, nullptr))
    waiting->take(std::move(work));
  else
    bg_async(0.0, std::move(work));
}

void PartialDataOpr::bg_request(const URL& url, const std::optional<BytesRange>& range,
                                const StatusClosure& status_closure) {
  asks_for_whole = !range;
  ephemeral_config = platform::URLSessionConfiguration::ephemeral();
  ephemeral_session = URLSession::make(
      *ephemeral_config, std::static_pointer_cast<PartialDataOpr>(shared_from_this()));
  sema = std::make_shared<platform::Semaphore>(0U);
  std::optional<Error> error;
  try {
    platform::LentThread lent(ephemeral_session->delegate_queue(), *sema);
    main_sync([&]() MAIN_ONLY { start_task(url, range, status_closure); });
    lent.wait();
    error = task_err;
  } catch (...) {
    error = Error::current();
  }
  main_sync([&]() MAIN_ONLY { finish(std::move(error), status_closure); });
}

void PartialDataOpr::start_task(const URL& url, const std::optional<BytesRange>& range,
                                const StatusClosure& status_closure) {
  if (is_cancelled())
    throw Exception();
  task_err.reset();
  recieved_response = false;
  total_fetched_bytes = 0;
  received_bytes = 0;
  status_closure({Status::connecting{}});
  platform::URLRequest request(url);
  request.cache_policy = platform::CachePolicy::use_protocol_cache_policy;
  request.time_out_interval = std::chrono::milliseconds(60'000);
  if (range)
    request.set_header_field("Range", "bytes=" + std::to_string(range->start) + "-" +
                                          std::to_string(range->end));
  auto task = ephemeral_session->data_task(std::move(request));
  task->resume();
  data_task = std::move(task);
  if (is_cancelled()) // by the callback just now, when there was no task yet
    data_task->cancel();
}

void PartialDataOpr::finish(std::optional<Error> error, const StatusClosure& status_closure) {
  const auto taken = std::exchange(stat_closure, nullptr);
  if (is_cancelled())
    error = to_error(Exception());
  free();
  if (!error)
    status_closure({Status::success{}});
  else if (error->is<Exception>())
    status_closure({Status::cancelled{}});
  else
    status_closure({Status::error{*error}});
}

void PartialDataOpr::cancel() {
  main_sync([&]() MAIN_ONLY {
    LGOperation::cancel();
    if (data_task)
      data_task->cancel();
  });
}

void PartialDataOpr::urlSession(URLSession&, platform::DataTask&,
                                const platform::URLResponse& didReceive,
                                platform::ResponseHandler completionHandler) {
  if (recieved_response)
    return;
  recieved_response = true;
  if (!didReceive.is_http)
    platform::fatal("the content of a link came without an HTTP response");
  http_header = didReceive.header_fields;
  content_len = announced_length(*http_header);
  if (auto refused = refusal(didReceive)) {
    task_err = std::move(refused);
    completionHandler(platform::ResponseDisposition::cancel);
    return;
  }
  main_sync([&]() MAIN_ONLY {
    if (!is_cancelled() && stat_closure)
      stat_closure({Status::started{content_len}});
  });
  completionHandler(platform::ResponseDisposition::allow);
}

std::optional<Error> PartialDataOpr::refusal(const platform::URLResponse& response) const {
  const auto& values = ephemeral_config->values;
  if (!expected_version || (!values.reject_changed_content && !values.require_exact_ranges))
    return std::nullopt;
  auto expected = *expected_version;
  if (!values.reject_changed_content)
    expected = {.strong_etag = {}, .last_modified = {}, .total = expected.total};
  const auto changed = difference(expected, ContentVersion::of(response));
  return changed ? std::optional(changed_content_error(*changed)) : std::nullopt;
}

void PartialDataOpr::urlSession(URLSession&, platform::DataTask&,
                                const platform::Data& didReceive) {
  received_bytes += static_cast<std::int64_t>(didReceive.size());
  const bool cancelled =
      bramblekit::main_sync_in_turn([&]() MAIN_ONLY { count_and_deliver(didReceive); },
                                    [&]() MAIN_ONLY { return is_cancelled(); });
  if (!cancelled && stat_closure)
    stat_closure({Status::bg_after_receive_data{}});
}

void PartialDataOpr::count_and_deliver(const platform::Data& chunk) {
  total_fetched_bytes =
      platform::checked_add(total_fetched_bytes, static_cast<std::int64_t>(chunk.size()));
  const float prog_value =
      content_len ? static_cast<float>(total_fetched_bytes) / static_cast<float>(*content_len)
                  : 0.0F;
  if (!is_cancelled() && stat_closure)
    stat_closure({Status::did_receive_data{{prog_value, chunk}}});
}

void PartialDataOpr::urlSession(URLSession&, platform::DataTask&,
                                const std::optional<Error>& didCompleteWithError) {
  if (didCompleteWithError && !is_platform_cancellation(*didCompleteWithError))
    task_err = didCompleteWithError;
  if (!didCompleteWithError && !task_err)
    task_err = wrong_length();
  sema->signal();
}

/// A body without a length of its own, or without a body at all, is no whole of the length that
/// the header probe was told.
std::optional<Error> PartialDataOpr::wrong_length() const {
  if (!asks_for_whole || !expected_version || !expected_version->total ||
      !ephemeral_config->values.require_exact_ranges)
    return std::nullopt;
  const auto total = *expected_version->total;
  const auto got = received_bytes;
  if (got == total)
    return std::nullopt;
  return to_error(URLLoadingError(
      got < total ? URLError::network_connection_lost : URLError::bad_server_response,
      "the server announced " + std::to_string(total) + " bytes and sent " + std::to_string(got)));
}

} // namespace ravelin
