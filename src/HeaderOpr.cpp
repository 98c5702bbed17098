#include "src/HeaderOpr.h"

#include "bramblekit/background.h"
#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/fatal.h"
#include "src/HeaderValues.h"

#include <utility>

namespace ravelin {

using bramblekit::bg_async;
using bramblekit::case_insensitive;
using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::ResponseDisposition;
using platform::URLSession;

void HeaderOpr::request(const URL& url, StatusClosure status_closure) {
  activate();
  const auto self = std::static_pointer_cast<HeaderOpr>(shared_from_this());
  try {
    bg_async(0.0, [self, url, status_closure] { self->bg_request(url, status_closure); });
  } catch (...) { // there is no thread for it
    MainQueue::async([self, status_closure, error = Error::current()]()
                         MAIN_ONLY { self->finish(error, std::nullopt, status_closure); });
  }
}

void HeaderOpr::bg_request(const URL& url, const StatusClosure& status_closure) {
  const auto current = settings ? settings : platform::RequestSettings::snapshot();
  safeguards = ResponseChecks(current->options);
  ephemeral_config = platform::URLSessionConfiguration::ephemeral(current);
  sema = std::make_shared<platform::Semaphore>(0U);
  std::optional<Error> error;
  std::optional<Result> result;
  try {
    ephemeral_session = URLSession::make(*ephemeral_config,
                                         std::static_pointer_cast<HeaderOpr>(shared_from_this()));
    main_sync([&]() MAIN_ONLY { start_task(url); });
    sema->wait();
    error = task_err;
    if (!error && recieved_response)
      result = required_result();
  } catch (...) {
    error = Error::current();
  }
  main_sync([&]() MAIN_ONLY { finish(std::move(error), std::move(result), status_closure); });
}

void HeaderOpr::start_task(const URL& url) {
  if (is_cancelled())
    throw Exception();
  platform::URLRequest request(url);
  request.header_suffices = true;
  auto task = ephemeral_session->data_task(std::move(request));
  task_err.reset();
  recieved_response = false;
  started_at = std::chrono::steady_clock::now();
  task->resume();
  data_task = std::move(task);
}

HeaderOpr::Result HeaderOpr::required_result() const {
  if (!ranges_accepted || !http_header || !server_side_date)
    platform::fatal("a response without a header");
  return {*ranges_accepted, *http_header, content_len, *server_side_date, response_time};
}

void HeaderOpr::finish(std::optional<Error> error, std::optional<Result> result,
                       const StatusClosure& status_closure) {
  if (is_cancelled())
    error = to_error(Exception());
  free();
  if (error && error->is<Exception>())
    status_closure({Status::cancelled{}});
  else if (error)
    status_closure({Status::error{*error}});
  else if (result)
    status_closure({Status::success{*std::move(result)}});
  else
    platform::fatal("a header request ended with neither a response nor an error");
}

void HeaderOpr::cancel() {
  main_sync([&]() MAIN_ONLY {
    LGOperation::cancel();
    if (data_task)
      data_task->cancel();
  });
}

void HeaderOpr::urlSession(URLSession&, platform::DataTask& dataTask,
                           const platform::URLResponse& didReceive,
                           platform::ResponseHandler completionHandler) {
  if (recieved_response)
    return;
  recieved_response = true;
  response_time = std::chrono::steady_clock::now() - started_at;
  if (!didReceive.is_http) {
    task_err = to_error(
        bramblekit::error_msg("Couldn't cast response to `HTTPURLResponse`.", "src/HeaderOpr",
                              "urlSession(_:dataTask:didReceive:completionHandler:)", 155));
    completionHandler(ResponseDisposition::cancel);
    return;
  }
  if (auto refused = safeguards.refuse_header(didReceive)) {
    task_err = std::move(refused);
    completionHandler(ResponseDisposition::cancel);
    return;
  }
  response = didReceive;
  http_header = didReceive.header_fields;
  const auto ranges = case_insensitive(*http_header, "Accept-Ranges");
  ranges_accepted = ranges && ranges->find("bytes") != std::string::npos;
  content_len = announced_length(*http_header);
  server_side_date = case_insensitive(*http_header, "Date").value_or("");
  if (holds_response && holds_response(required_result())) {
    held_response = std::make_unique<platform::HeldResponse>(dataTask, didReceive,
                                                             std::move(completionHandler));
    sema->signal(); // the task does not end before the response is decided on
    return;
  }
  completionHandler(ResponseDisposition::cancel);
}

void HeaderOpr::urlSession(URLSession&, platform::DataTask&,
                           const std::optional<Error>& didCompleteWithError) {
  if (didCompleteWithError && !is_platform_cancellation(*didCompleteWithError))
    task_err = didCompleteWithError;
  sema->signal();
}

} // namespace ravelin
