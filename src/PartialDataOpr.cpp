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
  main_sync([&]() MAIN_ONLY {
    stat_closure = status_closure;
    asked_range = range;
  });
  const auto self = std::static_pointer_cast<PartialDataOpr>(shared_from_this());
  try {
    bg_async(0.0, [self, url, status_closure] { self->bg_request(url, status_closure); });
  } catch (...) { // there is no thread for it
    MainQueue::async([self, status_closure, error = Error::current()]()
                         MAIN_ONLY { self->finish(error, status_closure); });
  }
}

void PartialDataOpr::bg_request(const URL& url, const StatusClosure& status_closure) {
  const auto current = settings ? settings : platform::RequestSettings::snapshot();
  safeguards = ResponseChecks(current->options);
  ephemeral_config = platform::URLSessionConfiguration::ephemeral(current);
  sema = std::make_shared<platform::Semaphore>(0U);
  std::optional<Error> error;
  try {
    if (!held_response) // whose session has a thread already
      ephemeral_session = URLSession::make(
          *ephemeral_config, std::static_pointer_cast<PartialDataOpr>(shared_from_this()));
    main_sync([&]() MAIN_ONLY { start_task(url, status_closure); });
    sema->wait();
    error = task_err;
  } catch (...) {
    error = Error::current();
  }
  main_sync([&]() MAIN_ONLY { finish(std::move(error), status_closure); });
}

void PartialDataOpr::start_task(const URL& url, const StatusClosure& status_closure) {
  if (is_cancelled())
    throw Exception();
  task_err.reset();
  recieved_response = false;
  total_fetched_bytes = 0;
  received_bytes = 0;
  status_closure({Status::connecting{}});
  if (held_response) {
    data_task = std::exchange(held_response, nullptr)
                    ->hand_over(std::static_pointer_cast<PartialDataOpr>(shared_from_this()));
  } else {
    platform::URLRequest request(url);
    request.cache_policy = platform::CachePolicy::use_protocol_cache_policy;
    request.time_out_interval = std::chrono::milliseconds(60'000);
    request.range = asked_range;
    request.if_range = required_etag;
    auto task = ephemeral_session->data_task(std::move(request));
    task->resume();
    data_task = std::move(task);
  }
  if (is_cancelled()) // by the callback, before there was a task
    data_task->cancel();
}

void PartialDataOpr::finish(std::optional<Error> error, const StatusClosure& status_closure) {
  const auto keep = std::exchange(stat_closure, nullptr); // destroyed after the last call
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
    platform::fatal("the response to a content request is not HTTP");
  http_header = didReceive.header_fields;
  content_len = announced_length(*http_header);
  auto refused = required_etag ? ResponseChecks::refuse_other_etag(didReceive, *required_etag)
                               : std::optional<Error>();
  if (!refused)
    refused = safeguards.refuse_response(didReceive, asked_range, expected_version);
  if (refused) {
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

void PartialDataOpr::urlSession(URLSession&, platform::DataTask& dataTask,
                                platform::Data didReceive) {
  if (task_err)
    return; // the task is being cancelled
  received_bytes += static_cast<std::int64_t>(didReceive.size());
  task_err = safeguards.refuse_excess(received_bytes, asked_range, expected_version);
  if (task_err) {
    dataTask.cancel();
    return;
  }
  const bool cancelled =
      bramblekit::main_sync_in_turn([&]() MAIN_ONLY { count_and_deliver(std::move(didReceive)); },
                                    [&]() MAIN_ONLY { return is_cancelled(); });
  if (!cancelled && stat_closure)
    stat_closure({Status::bg_after_receive_data{}});
}

void PartialDataOpr::count_and_deliver(platform::Data chunk) {
  total_fetched_bytes =
      platform::checked_add(total_fetched_bytes, static_cast<std::int64_t>(chunk.size()));
  const float prog_value =
      content_len ? static_cast<float>(total_fetched_bytes) / static_cast<float>(*content_len)
                  : 0.0F;
  if (!is_cancelled() && stat_closure)
    stat_closure({Status::did_receive_data{{prog_value, std::move(chunk)}}});
}

void PartialDataOpr::urlSession(URLSession&, platform::DataTask&,
                                const std::optional<Error>& didCompleteWithError) {
  // If a safeguard refused the response, that error is kept.
  if (!task_err && didCompleteWithError && !is_platform_cancellation(*didCompleteWithError))
    task_err = didCompleteWithError;
  if (!didCompleteWithError && !task_err)
    task_err = safeguards.refuse_length(received_bytes, asked_range, expected_version);
  sema->signal();
}

} // namespace ravelin
