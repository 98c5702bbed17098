#include "bramblekit/collections.h"
#include "bramblekit/main_thread.h"
#include "platform/network/retry_wait.h"
#include "ravelin/response.h"
#include "src/HeaderOpr.h"
#include "src/RetryPolicy.h"
#include "src/SuggestedName.h"

#include <utility>

namespace ravelin {

using bramblekit::main_sync;

Response make_response(const platform::URLResponse& from, const HeaderOpr::Result& result) {
  Response response;
  response.url = URL(from.url);
  response.status = from.status;
  response.header_fields.assign(from.header_fields.begin(), from.header_fields.end());
  if (result.content_length >= 0)
    response.content_length = result.content_length;
  response.accepts_ranges = result.ranges_accepted;
  if (const auto field = bramblekit::case_insensitive(from.header_fields, "Content-Disposition"))
    response.suggested_name = name_from_disposition(*field);
  return response;
}

const std::string* Response::field(std::string_view name) const {
  for (const auto& [known, value] : header_fields)
    if (platform::equal_ignoring_case(known, name))
      return &value;
  return nullptr;
}

/// Threads: fields and functions belong to the main thread.
class HeaderRequest::Impl : public std::enable_shared_from_this<Impl> {
public:
  explicit Impl(Options options)
      : own_options_(platform::with_functions_freed_on_main(std::move(options))) {}

  void start(const URL& link, Answer answer) {
    settings_ = platform::RequestSettings::snapshot(own_options_);
    policy_.emplace(settings_->options.retry.value_or(Retry{}));
    link_ = link;
    answer_ = std::move(answer);
    cancelled_ = false;
    attempt();
  }

  void cancel() {
    cancelled_ = true;
    if (retry_wait_)
      retry_wait_->interrupt();
    else if (request_)
      request_->cancel();
  }

private:
  void attempt() {
    request_ = std::make_shared<HeaderOpr>();
    request_->settings = settings_;
    request_->request(link_, [self = shared_from_this()](const HeaderOpr::Status& status) {
      const auto request = std::exchange(self->request_, nullptr);
      std::visit(match{[&](const HeaderOpr::Status::success& e) {
                         const auto response = make_response(request->response, e.result);
                         self->end(&response, nullptr);
                       },
                       [&](const HeaderOpr::Status::error& e) { self->on_error(e.error); },
                       [&](const HeaderOpr::Status::cancelled&) { self->end(nullptr, nullptr); }},
                 status.value);
    });
  }

  void on_error(const Error& error) {
    const auto custom_error = make_custom_error(error);
    if (cancelled_ || !settings_->options.retry ||
        policy_->judge(custom_error, 0, false) != Remedy::try_again) {
      end(nullptr, &error);
      return;
    }
    retry_wait_ = wait_in_background(*policy_, [self = shared_from_this()] { self->after_wait(); });
    if (!retry_wait_)
      return end(nullptr, &error);
    if (const auto& on_retry = settings_->options.on_retry)
      on_retry({custom_error, policy_->wait(), policy_->describe_retry()});
  }

  void after_wait() {
    retry_wait_ = nullptr;
    if (cancelled_)
      end(nullptr, nullptr);
    else
      attempt();
  }

  void end(const Response* response, const Error* error) {
    if (const auto answer = std::exchange(answer_, nullptr))
      answer(cancelled_ ? nullptr : response, cancelled_ ? nullptr : error);
  }

  const Options own_options_;
  std::shared_ptr<const platform::RequestSettings> settings_;
  std::optional<RetryPolicy> policy_;
  URL link_;
  Answer answer_;
  std::shared_ptr<HeaderOpr> request_;
  std::shared_ptr<platform::RetryWait> retry_wait_; // while it waits
  bool cancelled_ = false;
};

HeaderRequest::HeaderRequest(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {}

HeaderRequest::~HeaderRequest() = default;

void HeaderRequest::start(const URL& link, Answer answer) {
  platform::refuse_in_forked_child();
  main_sync([&] { impl_->start(link, std::move(answer)); });
}

void HeaderRequest::cancel() {
  main_sync([&] { impl_->cancel(); });
}

} // namespace ravelin
