#include "ravelin/content_request.h"

#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/network/retry_wait.h"
#include "ravelin/text_error.h"
#include "src/HeaderOpr.h"
#include "src/PartialDataOpr.h"
#include "src/RetryPolicy.h"
#include "src/SpeedMeter.h"

#include <stdexcept>
#include <utility>

namespace ravelin {

using bramblekit::main_sync;
using bramblekit::to_error;

/// Threads: fields and functions belong to the main thread unless they are marked otherwise.
class ContentRequest::Impl : public std::enable_shared_from_this<Impl> {
public:
  explicit Impl(Options options)
      : own_options_(platform::with_functions_freed_on_main(std::move(options))) {}

  void start(const URL& link, Callbacks callbacks) {
    if (settings_)
      throw std::logic_error("a content request can be started only once");
    settings_ = platform::RequestSettings::snapshot(own_options_);
    policy_.emplace(settings_->options.retry.value_or(Retry{}));
    link_ = link;
    callbacks_ = std::move(callbacks);
    if (is_cancelled_)
      MainQueue::async([self = shared_from_this()] { self->end(End::cancelled); });
    else
      request_header();
  }

  void cancel() {
    is_cancelled_ = true;
    if (retry_wait_)
      retry_wait_->interrupt();
    if (header_request_)
      header_request_->cancel();
    if (request_)
      request_->cancel();
  }

  RavelinOperation::Speed speed() const {
    RavelinOperation::Speed result;
    result.bytes_per_second = speed_meter_.rate();
    if (version_.total)
      result.left = speed_meter_.time_left(*version_.total - received_);
    return result;
  }

private:
  void request_header() {
    header_request_ = std::make_shared<HeaderOpr>();
    header_request_->settings = settings_;
    header_request_->holds_response = [](const HeaderOpr::Result&) { return true; };
    header_request_->request(link_, [self = shared_from_this()](const HeaderOpr::Status& status) {
      const auto request = std::exchange(self->header_request_, nullptr);
      std::visit(match{[&](const HeaderOpr::Status::success& e) {
                         self->on_header(*request, e.result);
                         self->request_content(std::move(request->held_response));
                       },
                       [&](const HeaderOpr::Status::error& e) { self->on_error(e.error); },
                       [&](const HeaderOpr::Status::cancelled&) { self->end(End::cancelled); }},
                 status.value);
    });
  }

  void on_header(const HeaderOpr& request, const HeaderOpr::Result& result) {
    version_ = ContentVersion::of_whole(result.header);
    accepts_ranges_ = result.ranges_accepted;
    if (callbacks_.on_response)
      callbacks_.on_response(make_response(request.response, result));
  }

  /// Without a response, requests what has not arrived yet.
  void request_content(std::unique_ptr<platform::HeldResponse> held_response) {
    if (is_cancelled_)
      return end(End::cancelled);
    request_ = std::make_shared<PartialDataOpr>();
    request_->settings = settings_;
    request_->expected_version = version_;
    std::optional<platform::BytesRange> range;
    if (!held_response) {
      const auto exact = std::make_shared<platform::RequestSettings>(*settings_);
      exact->options.require_exact_ranges = true;
      exact->options.reject_changed_content = true;
      request_->settings = exact;
      request_->required_etag = version_.strong_etag;
      range = {received_, version_.total.value() - 1};
    }
    request_->held_response = std::move(held_response);
    request_->request(link_, range,
                      [self = shared_from_this()](const PartialDataOpr::Status& event) {
                        self->on_event(event);
                      });
  }

  void on_event(const PartialDataOpr::Status& event) {
    using Event = PartialDataOpr::Status;
    std::visit(match{[](const Event::started&) {}, [](const Event::connecting&) {},
                     [&](const Event::did_receive_data& e) { on_data(e.progress.data); },
                     [&](const Event::bg_after_receive_data&) { bg_pass_on(); },
                     [&](const Event::error& e) { on_error(e.error); },
                     [&](const Event::success&) { end(End::complete); },
                     [&](const Event::cancelled&) {
                       end(failure_ ? End::failed : End::cancelled, failure_);
                     }},
               event.value);
  }

  void on_data(const platform::Data& data) {
    received_ += static_cast<std::int64_t>(data.size());
    speed_meter_.note(received_);
    chunk_ = data;
    std::optional<float> value;
    if (version_.total)
      value = static_cast<float>(received_) / static_cast<float>(*version_.total);
    if (callbacks_.on_progress)
      callbacks_.on_progress({value, received_, false, version_.total});
  }

  void bg_pass_on() {
    const auto chunk = std::exchange(chunk_, {});
    try {
      if (callbacks_.on_bytes)
        callbacks_.on_bytes(chunk.text());
    } catch (...) {
      main_sync([&, error = Error::current()] {
        failure_ = error;
        request_->cancel();
      });
    }
  }

  void on_error(const Error& error) {
    request_ = nullptr;
    const auto custom_error = make_custom_error(error);
    if (is_cancelled_)
      return end(End::cancelled);
    if (!settings_->options.retry ||
        policy_->judge(custom_error, received_, false) != Remedy::try_again)
      return end(End::failed, error);
    const bool can_request_rest =
        accepts_ranges_ && version_.strong_etag && version_.total && received_ < *version_.total;
    if (received_ > 0 && !can_request_rest)
      return end(
          End::failed,
          to_error(TextError(custom_error.text() +
                             "; the rest cannot be requested, because the server "
                             "offers no " +
                             (accepts_ranges_ && version_.total ? "strong ETag" : "byte ranges"))));
    retry_wait_ = wait_in_background(*policy_, [self = shared_from_this()] { self->after_wait(); });
    if (!retry_wait_)
      return end(End::failed, error);
    if (const auto& on_retry = settings_->options.on_retry)
      on_retry({custom_error, policy_->wait(), policy_->describe_retry()});
  }

  void after_wait() {
    retry_wait_ = nullptr;
    if (is_cancelled_)
      end(End::cancelled);
    else if (received_ > 0)
      request_content(nullptr);
    else
      request_header();
  }

  void end(End how, const std::optional<Error>& error = {}) {
    request_ = nullptr;
    chunk_ = {}; // its block is needed elsewhere
    if (const auto callbacks = std::exchange(callbacks_, {}); callbacks.on_end)
      callbacks.on_end(how, how == End::failed ? &*error : nullptr);
  }

  const Options own_options_;
  std::shared_ptr<const platform::RequestSettings> settings_;
  std::optional<RetryPolicy> policy_;
  URL link_;
  Callbacks callbacks_; // not changed while a request is in progress
  std::shared_ptr<HeaderOpr> header_request_;
  std::shared_ptr<PartialDataOpr> request_;
  std::shared_ptr<platform::RetryWait> retry_wait_; // while it waits
  ContentVersion version_;
  bool accepts_ranges_ = false;
  std::int64_t received_ = 0; // bytes
  SpeedMeter speed_meter_;
  // To be passed on. It goes from the main thread to the delegate queue and back, as each of them
  // waits for the other.
  platform::Data chunk_;
  std::optional<Error> failure_; // of `on_bytes`
  bool is_cancelled_ = false;
};

ContentRequest::ContentRequest(Options options)
    : impl_(std::make_shared<Impl>(std::move(options))) {}

ContentRequest::~ContentRequest() = default;

void ContentRequest::start(const URL& link, Callbacks callbacks) {
  platform::refuse_in_forked_child();
  main_sync([&] { impl_->start(link, std::move(callbacks)); });
}

void ContentRequest::cancel() {
  main_sync([&] { impl_->cancel(); });
}

RavelinOperation::Speed ContentRequest::speed() const {
  return main_sync([&] { return impl_->speed(); });
}

} // namespace ravelin
